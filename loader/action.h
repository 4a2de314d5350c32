#pragma once
// Actions of the configuration document. An action reads its own element
// once, when it is built (Load), and carries it out later (Run). Both answer
// a Common::Error; success is the empty value.
#include <boost/shared_ptr.hpp>

#include <string>

#include "files/xml_element.h"
#include "loader/common/error.h"

namespace EfiLoader {

class Action {
public:
    explicit Action(const xml_element* element) : element(element) {}
    virtual ~Action() = default;
    virtual Common::Error Run() = 0;
    // Reads the `Loading` text; a `Loading` without a non-empty `Text` is a
    // bad configuration. Derived actions call it last.
    virtual Common::Error Load();

    const std::u16string& Loading() const { return loading; }

protected:
    std::u16string loading;
    const xml_element* element;
};

using ActionPointer = boost::shared_ptr<Action>;

// Leaves the loader without booting, so that the firmware goes on with its
// next boot option.
class ChainLoad : public Action {
public:
    using Action::Action;
    Common::Error Run() override { return Common::Success; }
};

// Builds the main action or a menu entry's action for `element`: `Menu`,
// `LoadKernel` or `Chainload`. The new action is stored before its Load
// runs; Load's result is the result.
Common::Error CreateAction(const xml_element& element, ActionPointer& action);

// Builds a job: only `Rename` is one.
Common::Error CreateJob(const xml_element& element, ActionPointer& action);

// The refusal of a document the loader cannot carry out; it has no text.
Common::Error BadConfiguration(std::uint64_t tag);

}  // namespace EfiLoader
