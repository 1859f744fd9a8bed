#include <cstdio>

#include "client/sample/main_loop.h"
#include "client/sample/options.h"

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  int status = 0;
  const std::optional<quorvel_sample::Options> options = quorvel_sample::parseOptions(argc, argv, status);
  if (!options) return status;
  return quorvel_sample::MainLoop(*options).run();
}
