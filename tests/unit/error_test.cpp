// The error value and its records.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "loader/common/error.h"
#include "loader/common/error_codes.h"
#include "loader/common/error_record.h"
#include "loader/common/messages.h"
#include "loader/common/resizer_errors.h"

// Only the no-throw form of operator new is replaced: the error records are
// its only user in the system, so a test can make their allocation fail.
namespace {
bool fail_nothrow_new = false;
int nothrow_allocations = 0;
}  // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (fail_nothrow_new) return nullptr;
    ++nothrow_allocations;
    try {
        return ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}

namespace {

using Common::Error;
using Common::ErrorRecord;

struct FailingAllocations {
    FailingAllocations() { fail_nothrow_new = true; }
    ~FailingAllocations() { fail_nothrow_new = false; }
};

TEST(Error, CodeZeroIsSuccessWithoutAllocation) {
    int before = nothrow_allocations;
    Error plain(ERROR_TAG, 0);
    Error narrow(ERROR_TAG, 0, "text");
    Error wide(ERROR_TAG, 0, u"text");
    for (const Error* error : std::initializer_list<const Error*>{&plain, &narrow, &wide, &Common::Success}) {
        EXPECT_EQ(error->Record(), nullptr);
        EXPECT_FALSE(error->Failed());
        EXPECT_EQ(error->Code(), 0u);
        EXPECT_EQ(error->Tag(), 0u);
        EXPECT_EQ(error->Message(), u"");
    }
    EXPECT_EQ(nothrow_allocations, before);
}

TEST(Error, RecordSizesAndTexts) {
    Error plain(7, Common::FILE_OPEN);
    Error null_narrow(7, Common::FILE_OPEN, static_cast<const char*>(nullptr));
    Error narrow(7, Common::RESIZER_INTERNAL, "Internal error: x\xE9");
    Error wide(7, Common::FILE_OPEN, Common::Messages::FILE_OPEN);
    EXPECT_EQ(plain.Record()->size, 40u);
    EXPECT_EQ(null_narrow.Record()->size, 48u);
    EXPECT_EQ(null_narrow.Record()->message, 0u);
    EXPECT_EQ(null_narrow.Message(), u"");
    EXPECT_EQ(narrow.Record()->size, 48u + 19u);
    EXPECT_EQ(narrow.Record()->message, 48u);
    // Bytes above 0x7F widen to the same number, with no code page.
    EXPECT_EQ(narrow.Message(), u"Internal error: x\u00E9");
    std::u16string expected = u"Error durante la apertura del archivo.";
    EXPECT_EQ(wide.Record()->size, 48u + 2 * expected.size() + 2);
    EXPECT_EQ(wide.Message(), expected);
    EXPECT_EQ(plain.Tag(), 7u);
    EXPECT_EQ(plain.Code(), 0x40007u);
}

TEST(Error, TagsAreModuleConstantPlusLine) {
    Error first(ERROR_TAG, 1);
    Error second(ERROR_TAG, 1);
    EXPECT_EQ(second.Tag() - first.Tag(), 1u);
    EXPECT_EQ(first.Tag() - Common::ModuleConstant("unit/error_test.cpp"), std::uint64_t(__LINE__) - 3);
    EXPECT_EQ(Common::ModuleConstant("/a/b/unit/error_test.cpp"), Common::ModuleConstant("unit/error_test.cpp"));
    EXPECT_EQ(Common::ModuleConstant("C:\\src\\unit\\error_test.cpp"), Common::ModuleConstant("unit\\error_test.cpp"));
    // Files of one name in two folders are two modules.
    EXPECT_NE(Common::ModuleConstant("files/file_object.cpp"), Common::ModuleConstant("fsdriver/file_object.cpp"));
}

TEST(Error, CopiesShareTheRecordAndTheLastOneFreesTheChain) {
    Error error(1, Common::FILE_READ, Common::Messages::FILE_READ);
    const ErrorRecord* record = error.Record();
    {
        Error copy = error;
        EXPECT_EQ(copy.Record(), record);
        EXPECT_EQ(record->refcount, 2u);
    }
    EXPECT_EQ(record->refcount, 1u);
    error = error;
    EXPECT_EQ(record->refcount, 1u);
    EXPECT_EQ(error.Code(), Common::FILE_READ);

    // A chain far longer than any stack could recurse through.
    Error chain(1, 1);
    for (int i = 0; i < 200000; ++i) {
        Error outer(2, 2);
        outer.SetNext(chain);
        chain = outer;
    }
    EXPECT_EQ(chain.Next().Next().Code(), 2u);
    chain = Error();  // must not overflow the stack (ASan would report a leak)
}

TEST(Error, SetNextOnSharedAndUnsharedRecords) {
    Error cause(1, Common::FILE_READ);
    Error other_cause(2, Common::FILE_EOF);

    Error unshared(3, Common::FILE_OPEN, "x");
    const ErrorRecord* own = unshared.Record();
    unshared.SetNext(cause);
    EXPECT_EQ(unshared.Record(), own);
    EXPECT_EQ(unshared.Next().Code(), Common::FILE_READ);
    unshared.SetNext(Error());
    EXPECT_EQ(unshared.Next().Record(), nullptr);

    Error shared(4, Common::FILE_OPEN, u"abc");
    Error holder = shared;
    holder.SetNext(other_cause);
    EXPECT_NE(holder.Record(), shared.Record());
    EXPECT_EQ(shared.Next().Record(), nullptr);
    EXPECT_EQ(holder.Next().Code(), Common::FILE_EOF);
    EXPECT_EQ(holder.Message(), u"abc");
    EXPECT_EQ(holder.Tag(), 4u);
    EXPECT_EQ(shared.Record()->refcount, 1u);
    EXPECT_EQ(holder.Record()->refcount, 1u);

    Error empty;
    empty.SetNext(cause);
    EXPECT_EQ(empty.Record(), cause.Record());
    // Held by `cause` and `empty`; `unshared` let go of it when its link was cleared.
    EXPECT_EQ(cause.Record()->refcount, 2u);
}

TEST(Error, ExhaustedMemorySharesOneStaticRecord) {
    const ErrorRecord* stand_in = Common::OutOfMemoryRecord();
    std::uint32_t base = stand_in->refcount;
    {
        FailingAllocations failing;
        Error first(1, Common::FILE_OPEN, Common::Messages::FILE_OPEN);
        Error second(2, Common::KERNEL_CORRUPT);
        EXPECT_EQ(first.Record(), stand_in);
        EXPECT_EQ(second.Record(), stand_in);
        EXPECT_EQ(stand_in->refcount, base + 2);
        EXPECT_EQ(first.Code(), 0xFFF2u);
        EXPECT_EQ(first.Tag(), 0u);
        EXPECT_EQ(first.Message(), u"");
        EXPECT_EQ(stand_in->size, 32u);

        // A shared record whose clone fails keeps its value and drops the cause.
        Error shared = first;
        Error cause(3, 3);
        shared.SetNext(cause);
        EXPECT_EQ(shared.Record(), stand_in);
        EXPECT_EQ(shared.Next().Record(), nullptr);
    }
    EXPECT_EQ(stand_in->refcount, base);
}

TEST(Error, ThrownByValueCaughtByReferenceAndByType) {
    try {
        throw resizer::CorruptInode(ERROR_TAG);
    } catch (const Common::Error& error) {
        EXPECT_EQ(error.Code(), 0x70012u);
        EXPECT_EQ(error.Message(), u"I-nodo corrupto");
    }
    try {
        throw resizer::ResizeRequired(ERROR_TAG);
    } catch (const resizer::ResizeImpossible& error) {
        EXPECT_EQ(error.Code(), Common::RESIZER_RESIZE_REQUIRED);
    }
}

TEST(Error, DiskStatusMapping) {
    struct Case {
        std::uint64_t status;
        std::uint32_t code;
        const char16_t* text;
    };
    const Case cases[] = {
        {0x8000000000000001ull, 0x10D001, u"La imagen tiene formato desconocido o está corrupta."},
        {0x8000000000000007ull, 0x10D007, u"Error en el dispositivo."},
        {0x800000000000000Eull, 0x10D00E, u"No se pudo encontrar."},
        {0x8000000000000018ull, 0x10D018, u"Error de protocolo."},
        {0x8000000000000019ull, 0x10D01D, u"Error desconocido."},
        {0x8000000000000000ull, 0x10D01D, u"Error desconocido."},
        {1, 0x10D019, u"Advertencia: glifo desconocido."},
        {4, 0x10D01C, u"Advertencia: el búfer es demasiado pequeño."},
        {5, 0x10D01D, u"Error desconocido."},
        {0, 0x10D01D, u"Error desconocido."},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Common::DiskStatusToCode(c.status), c.code) << std::hex << c.status;
        EXPECT_EQ(std::u16string(Common::DiskStatusToMessage(c.status)), c.text) << std::hex << c.status;
    }
}

}  // namespace
