#include <iostream>
#include <string>
#include <vector>

#include "VornRun.hpp"

int main(int argc, char** argv) {
  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i) args.emplace_back(argv[i]);
  return runVornRun(args, std::cout, std::cerr);
}
