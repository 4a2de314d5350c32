// The simulated console: text out is captured as received, text in is a
// queue of keys that tests push.
#include "platform/host/simulator.h"

namespace HostFirmware {
namespace {

EFI_STATUS EFIAPI OutputString(SIMPLE_TEXT_OUTPUT_INTERFACE*, CHAR16* text) {
    for (; *text != 0; ++text) Simulator::Current().console_text_.push_back(static_cast<char16_t>(*text));
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI Reset(SIMPLE_TEXT_OUTPUT_INTERFACE*, BOOLEAN) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI TestString(SIMPLE_TEXT_OUTPUT_INTERFACE*, CHAR16*) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI ClearScreen(SIMPLE_TEXT_OUTPUT_INTERFACE*) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI SetAttribute(SIMPLE_TEXT_OUTPUT_INTERFACE*, UINTN) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI SetCursorPosition(SIMPLE_TEXT_OUTPUT_INTERFACE*, UINTN, UINTN) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI EnableCursor(SIMPLE_TEXT_OUTPUT_INTERFACE*, BOOLEAN) { return EFI_SUCCESS; }
EFI_STATUS EFIAPI QueryMode(SIMPLE_TEXT_OUTPUT_INTERFACE*, UINTN, UINTN* columns, UINTN* rows) {
    *columns = 80;
    *rows = 25;
    return EFI_SUCCESS;
}
EFI_STATUS EFIAPI SetMode(SIMPLE_TEXT_OUTPUT_INTERFACE*, UINTN mode) { return mode == 0 ? EFI_SUCCESS : EFI_UNSUPPORTED; }

// A reset keeps queued keys: they stand for keys typed after it.
EFI_STATUS EFIAPI ResetInput(SIMPLE_INPUT_INTERFACE*, BOOLEAN) {
    ++Simulator::Current().console_resets_;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI ReadKeyStroke(SIMPLE_INPUT_INTERFACE*, EFI_INPUT_KEY* key) {
    Simulator& simulator = Simulator::Current();
    if (!KeyAvailable(simulator)) return EFI_NOT_READY;
    *key = simulator.keys_.front().key;
    simulator.keys_.pop_front();
    return EFI_SUCCESS;
}

}  // namespace

bool KeyAvailable(const Simulator& simulator) {
    return !simulator.keys_.empty() && simulator.keys_.front().at <= simulator.Now();
}

void FillConsole(SIMPLE_TEXT_OUTPUT_INTERFACE& out, SIMPLE_INPUT_INTERFACE& in) {
    out.Reset = Reset;
    out.OutputString = OutputString;
    out.TestString = TestString;
    out.QueryMode = QueryMode;
    out.SetMode = SetMode;
    out.SetAttribute = SetAttribute;
    out.ClearScreen = ClearScreen;
    out.SetCursorPosition = SetCursorPosition;
    out.EnableCursor = EnableCursor;
    in.Reset = ResetInput;
    in.ReadKeyStroke = ReadKeyStroke;
}

}  // namespace HostFirmware
