// Load options and device path nodes from untrusted bytes: a Boot####
// value can hold anything a firmware, an installer or a damaged flash left.
// The input is read twice: as a whole EFI_LOAD_OPTION, and as a bare walk of
// device path nodes. Whatever is accepted must write back to a value that
// reads to the same thing, and every query must answer without a fault.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "firmware/byte_cursor.h"
#include "firmware/device_path.h"
#include "firmware/load_option.h"

namespace {

void Require(bool condition) {
    if (!condition) std::abort();
}

std::int32_t CursorSize(std::size_t size) { return size > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<std::int32_t>(size); }

void QueryEverything(Uefi::LoadOptionsImpl& options) {
    std::u16string text;
    EFI_GUID guid;
    std::uint64_t wide = 0;
    std::uint32_t narrow = 0;
    static_cast<void>(options.GetDescription(text));
    static_cast<void>(options.GetPath(text));
    static_cast<void>(options.GetGptSignature(guid));
    static_cast<void>(options.GetPartitionStart(wide));
    static_cast<void>(options.GetPartitionSize(wide));
    static_cast<void>(options.GetMbrSignature(narrow));
    static_cast<void>(options.GetPartitionNumber(narrow));
    static_cast<void>(options.GetPartitionType(narrow));
    static_cast<void>(Uefi::SameLoadOptions(options, options));
    static_cast<void>(Uefi::DescribeLoadOptions(options, text));
}

void CheckLoadOption(const std::uint8_t* data, std::size_t size) {
    Uefi::ByteCursor cursor(data, CursorSize(size));
    Uefi::LoadOptionsImpl options;
    bool parsed = !options.Parse(cursor).Failed();
    // The cursor never leaves the value.
    Require(cursor.left >= 0 && cursor.next >= data && cursor.next + cursor.left == data + CursorSize(size));
    QueryEverything(options);
    if (!parsed) return;

    std::vector<std::uint8_t> written;
    if (options.Serialize(written).Failed()) return;  // nodes beyond a 16-bit list length
    // A node keeps the Length it was read with, and the list length is their
    // sum; only when each Length is the size its node is written with does
    // the value read back whole. Otherwise the read must still end cleanly.
    bool lengths_honest = true;
    for (const auto& node : options.Nodes()) {
        if (auto file = Uefi::AsFilePath(node)) {
            lengths_honest = lengths_honest && node->Length() == 2 * file->path.size() + 6;
        } else if (Uefi::AsHardDrive(node)) {
            lengths_honest = lengths_honest && node->Length() == Uefi::kHardDriveNodeSize;
        }
    }
    Uefi::ByteCursor again_cursor(written.data(), CursorSize(written.size()));
    Uefi::LoadOptionsImpl again;
    bool reparsed = !again.Parse(again_cursor).Failed();
    QueryEverything(again);
    if (!lengths_honest) return;
    Require(reparsed);
    Require(again_cursor.left == 0);
    Require(again.Attributes() == options.Attributes());
    Require(again.Nodes().size() == options.Nodes().size());
    std::u16string a, b;
    static_cast<void>(options.GetDescription(a));
    static_cast<void>(again.GetDescription(b));
    Require(a == b);
    std::vector<std::uint8_t> rewritten;
    Require(!again.Serialize(rewritten).Failed());
    Require(rewritten == written);
}

void CheckNodeWalk(const std::uint8_t* data, std::size_t size) {
    Uefi::ByteCursor cursor(data, CursorSize(size));
    while (cursor.left > 0) {
        const std::int32_t before = cursor.left;
        Uefi::DevicePathPointer node;
        std::uint16_t length = 0;
        if (Uefi::ReadDevicePathNode(cursor, node, length).Failed()) {
            Require(cursor.left == before);
            return;
        }
        Require(cursor.left <= before - 4 && length >= 4);
        if (!node) continue;
        std::vector<std::uint8_t> written;
        Uefi::WriteDevicePathNode(*node, written);
        Uefi::ByteCursor back(written.data(), CursorSize(written.size()));
        Uefi::DevicePathPointer copy;
        std::uint16_t copy_length = 0;
        Require(!Uefi::ReadDevicePathNode(back, copy, copy_length).Failed());
        Require(copy && copy->Type() == node->Type() && copy->SubType() == node->SubType());
        Require(copy_length == length);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    CheckLoadOption(data, size);
    CheckNodeWalk(data, size);
    return 0;
}
