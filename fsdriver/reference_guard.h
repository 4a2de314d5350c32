#pragma once
// The edge between the drivers, which raise, and the file and directory
// family, which doesn't: one reference operation runs under the driver's
// file_lock, with allocation failures raised as FILE_NO_MEMORY, and a raised
// Common::Error ends up in the object's stored error. Other exceptions pass.
#include <new>

#include "files/file_object.h"
#include "fsdriver/driver_lock.h"
#include "loader/common/error.h"

// For the time of one operation, an allocation that fails raises
// FILE_NO_MEMORY, so that it is stored like any other failure.
class NoMemoryAsError {
public:
    NoMemoryAsError() : previous_(std::set_new_handler(&Raise)) {}
    ~NoMemoryAsError() { std::set_new_handler(previous_); }
    NoMemoryAsError(const NoMemoryAsError&) = delete;
    NoMemoryAsError& operator=(const NoMemoryAsError&) = delete;

private:
    [[noreturn]] static void Raise();
    std::new_handler previous_;
};

// Runs `operation`; answers true when it raised, after storing the error in `target`.
template <typename Operation>
bool GuardedCall(file_object& target, DriverLock& lock, Operation&& operation) {
    DriverLockHold hold(lock);
    NoMemoryAsError memory;
    try {
        operation();
        return false;
    } catch (const Common::Error& error) {
        target.set_error(error);
        return true;
    }
}
