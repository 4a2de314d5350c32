#include "fsdriver/reference_guard.h"

#include "loader/common/raise.h"

void NoMemoryAsError::Raise() {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_NO_MEMORY);
}
