#pragma once
// Paths of the single-tree world, for the Posix flavour of the driver
// framework: "/" alone is reserved, and a path never fails to compose.
#include <string>

// Composes a non-empty `path` on `base` ("/" or "/a/b", no "/" at the end).
std::u16string ComposePosixPath(const std::u16string& base, const std::u16string& path);

// Whether `name` may stand as one entry of a directory.
bool PosixNameAllowed(const std::u16string& name);
