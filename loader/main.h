#pragma once

namespace EfiLoader {

// The loader's main: help, the direct way or the document way, and the one
// handler that reports a Common::Error. Returns 1 in every case it reaches.
int main(int argc, char** argv);

}  // namespace EfiLoader
