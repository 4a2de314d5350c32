#pragma once
// One entry of the firmware's boot manager: the Boot#### variable, holding a
// load option and, behind it, the entry's optional data. The variable is
// brought in once, at the first operation that needs it.
#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <string>
#include <vector>

#include "firmware/load_option.h"
#include "firmware/variable.h"
#include "loader/common/error.h"

namespace Uefi {

class BootEntry {
public:
    virtual Common::Error GetOptionalData(std::vector<std::uint8_t>& bytes) = 0;
    virtual Common::Error SetOptionalData(const std::vector<std::uint8_t>& bytes) = 0;
    virtual Common::Error GetLoadOptions(boost::shared_ptr<LoadOptions>& options) = 0;
    virtual Common::Error SetLoadOptions(const boost::shared_ptr<LoadOptions>& options) = 0;
    virtual Common::Error Delete() = 0;
    virtual Common::Error Save() = 0;
    virtual std::uint16_t GetNumber() = 0;
    virtual bool Exists() = 0;

protected:
    // Released through shared pointers that know the concrete class.
    ~BootEntry() = default;
};

class BootEntryImpl final : public BootEntry {
public:
    explicit BootEntryImpl(std::uint16_t number);

    Common::Error GetOptionalData(std::vector<std::uint8_t>& bytes) override;
    // Only in memory; Save writes it.
    Common::Error SetOptionalData(const std::vector<std::uint8_t>& bytes) override;
    // An entry that the firmware does not hold gives the default option.
    Common::Error GetLoadOptions(boost::shared_ptr<LoadOptions>& options) override;
    // Takes a copy of a LoadOptionsImpl; the nodes are shared with it.
    Common::Error SetLoadOptions(const boost::shared_ptr<LoadOptions>& options) override;
    // Deletes the variable, read or not.
    Common::Error Delete() override;
    // Writes the load option and the optional data; an entry the firmware
    // does not hold is written from the defaults.
    Common::Error Save() override;
    std::uint16_t GetNumber() override { return number; }
    bool Exists() override;

private:
    // Brings the variable in once; a second call succeeds whatever became of
    // the first.
    Common::Error LoadEntry();
    // Whether a failed LoadEntry failed for want of a variable: the firmware
    // holds nothing under the name. A value that is there but cannot be read
    // is not absent, so it is never replaced by defaults.
    bool Absent();

    boost::shared_ptr<LoadOptionsImpl> options;
    boost::shared_ptr<Variable> variable;
    std::vector<std::uint8_t> optional_data;
    std::uint16_t number;
};

// "Boot" and the number as four upper-case hexadecimal digits.
std::u16string BootVariableName(std::uint16_t number);

// A new entry object for the number; nothing is read. Succeeds.
Common::Error CreateBootEntry(std::uint16_t number, boost::shared_ptr<BootEntry>& entry);

// A text form of the entry for diagnostics: its number, its load option and
// its optional data byte by byte.
Common::Error DescribeEntry(BootEntry& entry, std::u16string& text);

}  // namespace Uefi
