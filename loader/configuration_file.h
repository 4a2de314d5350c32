#pragma once
// The configuration document beside the loader's image: it owns the tree,
// which lives as long as main runs, since every action keeps a pointer to
// its own element.
#include <cstdint>
#include <utility>

#include "files/file_object.h"
#include "files/xml_element.h"
#include "loader/action.h"

namespace EfiLoader {

class ConfigurationFile {
public:
    Common::Error Load(i_file& file);
    std::uint32_t GetJobCount() const;
    Common::Error GetJob(std::uint32_t index, ActionPointer& action) const;
    Common::Error GetMainAction(ActionPointer& action) const;

    const xml_element* Root() const { return root_.get(); }
    // Takes a tree read elsewhere (the host tool reads it with a report).
    void Adopt(xml_document root) { root_ = std::move(root); }

private:
    xml_document root_;
};

}  // namespace EfiLoader
