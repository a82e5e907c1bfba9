// Walks one tree with traverseDirectory and prints how many entries it
// listed, so that a script can time it against another walker.
#include <cstdio>
#include <string>
#include <vector>

#include "common/traversal.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s TREE\n", argv[0]);
    return 2;
  }
  std::vector<std::string> out;
  if (traverseDirectory(argv[1], out) != 0) {
    std::fprintf(stderr, "traverse_bench: cannot walk %s\n", argv[1]);
    return 1;
  }
  std::printf("%zu\n", out.size());
  return 0;
}
