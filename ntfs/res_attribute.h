#pragma once
// An attribute whose value lies in the record, behind its header.
#include "ntfs/attribute.h"

namespace ntfs {

class ResAttribute : public Attribute {
public:
    ResAttribute(NTFSDriver* driver, BaseFileRecord* record, AttributeRecord* header)
        : Attribute(driver, record), header_(header) {}

    std::uint64_t physicalPosition(std::uint64_t position) override;
    std::uint64_t firstPosition() override { return 0; }
    std::uint64_t read(std::uint64_t position, std::uint64_t length, void* buffer) override;
    std::uint64_t readSectors(std::uint64_t position, std::uint64_t length, void* buffer) override;
    std::uint64_t readWithTail(std::uint64_t position, std::uint64_t length, void* buffer, bool direct) override;
    std::uint64_t write(std::uint64_t position, std::uint64_t length, const void* buffer) override;
    std::uint64_t writeSectors(std::uint64_t position, std::uint64_t length, const void* buffer) override;
    std::uint64_t resize(std::uint64_t size, bool may_move) override;
    std::uint64_t size() override { return header_->value_length(); }
    std::uint64_t allocatedSize() override { return (std::uint64_t(header_->value_length()) + 7) & ~std::uint64_t(7); }
    std::uint64_t usedRanges(std::uint64_t position, std::uint64_t length,
                             std::map<std::uint64_t, std::uint64_t>& ranges) override;
    AttributeRecord* header() override { return header_; }
    void rebase(AttributeRecord* moved) override { header_ = moved; }

private:
    AttributeRecord* header_;
};

}  // namespace ntfs
