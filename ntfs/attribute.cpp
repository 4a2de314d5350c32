#include "ntfs/attribute.h"

#include "ntfs/file_record.h"
#include "ntfs/file_record_impl.h"

namespace ntfs {

std::u16string Attribute::name() { return AttributeName(header()); }

AttributeRef& AttributeRef::operator=(AttributeRef&& other) noexcept {
    if (this != &other) {
        reset();
        record_ = other.record_;
        attribute_ = other.attribute_;
        other.attribute_ = nullptr;
    }
    return *this;
}

void AttributeRef::reset() {
    if (attribute_ != nullptr) record_->releaseAttribute(attribute_);
    attribute_ = nullptr;
}

}  // namespace ntfs
