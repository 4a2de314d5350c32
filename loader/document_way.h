#pragma once
#include <string>

namespace EfiLoader {

// The configuration document's path: the image path up to and including its
// last dot, then "xml". Empty when the image path has no dot.
std::u16string DocumentPath(const std::u16string& image_path);

class ConfigurationFile;

// Opens the configuration document beside the image, runs its jobs one by
// one and then its main action. `document` outlives the run's actions.
void RunDocumentWay(ConfigurationFile& document);

}  // namespace EfiLoader
