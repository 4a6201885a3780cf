#include <cstdio>
#include <exception>

#include "gateway/loader/Program.h"

int main(int argc, char** argv) {
  try {
    return corvid::fleet::runLoader({argv + (argc > 0), argv + argc});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "corvid-loader: %s\n", error.what());
    return 1;
  }
}
