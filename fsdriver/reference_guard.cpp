#include "fsdriver/reference_guard.h"

#include "fsdriver/driver_error.h"

void NoMemoryAsError::Raise() {
    RaiseDriverError(ERROR_TAG, Common::FILE_NO_MEMORY, Common::Messages::FILE_NO_MEMORY);
}
