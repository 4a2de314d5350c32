#pragma once
// The locks of the driver framework. The system runs on one thread, so
// taking one does nothing; they stand where a port to several threads needs
// them, in this order: the table of caches, a cache, a driver's block_lock;
// a driver's file_lock is outermost.
class DriverLock {
public:
    void lock() {}
    void unlock() {}
};

class DriverLockHold {
public:
    explicit DriverLockHold(DriverLock& lock) : lock_(lock) { lock_.lock(); }
    ~DriverLockHold() { lock_.unlock(); }
    DriverLockHold(const DriverLockHold&) = delete;
    DriverLockHold& operator=(const DriverLockHold&) = delete;

private:
    DriverLock& lock_;
};
