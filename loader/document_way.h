#pragma once
#include <string>

namespace EfiLoader {

// The configuration document's path: the image path up to and including its
// last dot, then "xml". Empty when the image path has no dot.
std::u16string DocumentPath(const std::u16string& image_path);

// Opens the configuration document beside the image and carries it out.
void RunDocumentWay();

}  // namespace EfiLoader
