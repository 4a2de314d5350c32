#pragma once
// Paths as the drive-letter world writes them, for the Windows flavour of
// the driver framework. A composed path is absolute, uses backslashes only
// and ends in one: "C:\", "C:\boot\grub\". Composing is where the names
// that world refuses are refused.
#include <string>

// Composes `path` on the composed path `base` of a directory. Answers false
// when the path is refused; `out` may then hold anything. An empty result
// with true means the root.
bool ComposeWindowsPath(const std::u16string& base, const std::u16string& path, std::u16string& out);

// The driver form of a composed path: "/" between components, none at the end.
std::u16string WindowsPathToDriverForm(const std::u16string& composed);

// Whether `name` may stand as one entry of the directory whose composed
// path is `directory`. A directory without a path (a pseudo root) holds
// only drive names such as "C:".
bool WindowsNameAllowed(const std::u16string& directory, const std::u16string& name);
