#pragma once
// The root of every counted object of the driver framework. The count is a
// plain integer: the system runs on one thread. An object starts with 0, and
// whoever keeps it adds 1; who takes the last one away decides, per class,
// what happens then.
#include <cstdint>

class ReferenceCount {
public:
    virtual ~ReferenceCount() = default;

    std::uint32_t references = 0;

protected:
    ReferenceCount() = default;
    ReferenceCount(const ReferenceCount&) = delete;
    ReferenceCount& operator=(const ReferenceCount&) = delete;
};
