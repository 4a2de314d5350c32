// Events and timers on the virtual clock. WaitForEvent never sleeps: when
// nothing in its list is ready it moves the clock to the first moment that
// something will be (a timer falling due, a queued key becoming available).
#include <algorithm>

#include "platform/host/simulator.h"

namespace HostFirmware {
namespace {

Simulator& Sim() { return Simulator::Current(); }

SimulatedEvent* Find(EFI_EVENT event) {
    auto found = Sim().events_.find(event);
    return found == Sim().events_.end() ? nullptr : found->second.get();
}

EFI_STATUS EFIAPI CreateEvent(UINT32 type, EFI_TPL, EFI_EVENT_NOTIFY notify, VOID*, EFI_EVENT* event) {
    if (event == nullptr) return EFI_INVALID_PARAMETER;
    // Notification functions are not simulated; no caller of ours uses them.
    if (notify != nullptr) return EFI_UNSUPPORTED;
    auto created = std::make_unique<SimulatedEvent>();
    created->type = type;
    *event = created.get();
    Sim().events_[*event] = std::move(created);
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI CloseEvent(EFI_EVENT event) {
    if (event == Sim().key_event_) return EFI_INVALID_PARAMETER;
    return Sim().events_.erase(event) == 1 ? EFI_SUCCESS : EFI_INVALID_PARAMETER;
}

EFI_STATUS EFIAPI SetTimer(EFI_EVENT event, EFI_TIMER_DELAY type, UINT64 trigger_time) {
    SimulatedEvent* timer = Find(event);
    if (timer == nullptr || !(timer->type & EVT_TIMER)) return EFI_INVALID_PARAMETER;
    std::uint64_t microseconds = (trigger_time + 9) / 10;
    switch (type) {
        case TimerCancel: timer->armed = false; return EFI_SUCCESS;
        case TimerRelative: timer->period = 0; break;
        case TimerPeriodic: timer->period = microseconds; break;
        default: return EFI_INVALID_PARAMETER;
    }
    timer->armed = true;
    timer->signaled = false;
    timer->due = Sim().Now() + microseconds;
    return EFI_SUCCESS;
}

// Brings timers that have fallen due into the signalled state.
void FireDueTimers() {
    for (auto& entry : Sim().events_) {
        SimulatedEvent& event = *entry.second;
        if (!event.armed || event.due > Sim().Now()) continue;
        event.signaled = true;
        if (event.period != 0) {
            event.due += event.period;
        } else {
            event.armed = false;
        }
    }
}

bool Ready(SimulatedEvent& event) { return event.key_event ? KeyAvailable(Sim()) : event.signaled; }

EFI_STATUS EFIAPI SignalEvent(EFI_EVENT event) {
    SimulatedEvent* signaled = Find(event);
    if (signaled == nullptr) return EFI_INVALID_PARAMETER;
    signaled->signaled = true;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI CheckEvent(EFI_EVENT event) {
    SimulatedEvent* checked = Find(event);
    if (checked == nullptr) return EFI_INVALID_PARAMETER;
    FireDueTimers();
    if (!Ready(*checked)) return EFI_NOT_READY;
    checked->signaled = false;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI WaitForEvent(UINTN count, EFI_EVENT* events, UINTN* index) {
    if (count == 0 || events == nullptr || index == nullptr) return EFI_INVALID_PARAMETER;
    std::vector<SimulatedEvent*> waited;
    for (UINTN i = 0; i < count; ++i) {
        SimulatedEvent* event = Find(events[i]);
        if (event == nullptr) return EFI_INVALID_PARAMETER;
        waited.push_back(event);
    }
    for (;;) {
        FireDueTimers();
        for (UINTN i = 0; i < count; ++i) {
            if (!Ready(*waited[i])) continue;
            waited[i]->signaled = false;
            *index = i;
            return EFI_SUCCESS;
        }
        // Nothing is ready: move the clock to the next moment that changes that.
        std::uint64_t next = UINT64_MAX;
        for (SimulatedEvent* event : waited) {
            if (event->armed) next = std::min(next, event->due);
            if (event->key_event && !Sim().keys_.empty()) next = std::min(next, Sim().keys_.front().at);
        }
        if (next == UINT64_MAX) throw WaitsForever{};
        if (next > Sim().Now()) Sim().Advance(next - Sim().Now());
    }
}

}  // namespace

void FillEventServices(EFI_BOOT_SERVICES& services) {
    services.CreateEvent = CreateEvent;
    services.CloseEvent = CloseEvent;
    services.SetTimer = SetTimer;
    services.SignalEvent = SignalEvent;
    services.CheckEvent = CheckEvent;
    services.WaitForEvent = WaitForEvent;
}

}  // namespace HostFirmware
