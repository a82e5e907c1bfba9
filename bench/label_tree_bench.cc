// Times one whole-tree labelling of ROOT and prints "seconds seen written".
//
//   label_tree_bench ROOT             through addTagFullSystem, as the tool runs it
//   label_tree_bench ROOT WORKERS     through labelTree with that many workers (0: one
//                                     per core)
//   label_tree_bench ROOT WORKERS read-first
//                                     the same with every label read before it is
//                                     written (no creating first), to measure what
//                                     creating first saves
#include <limits.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "cli/zorvlabelmgr.h"
#include "labelmgr/label_policy.h"
#include "labelmgr/state_db.h"
#include "labelmgr/tree_labeler.h"

namespace lm = zorv::labelmgr;

int main(int argc, char** argv) {
  if (argc < 2 || argc > 4 || (argc == 4 && std::string(argv[3]) != "read-first")) {
    std::fprintf(stderr, "usage: %s ROOT [WORKERS [read-first]]\n", argv[0]);
    return 2;
  }
  auto start = std::chrono::steady_clock::now();
  lm::TreeLabelStats stats;
  if (argc == 2) {
    if (addTagFullSystem(argv[1], {}) != 0) return 1;
  } else {
    bool absent = false;
    std::unique_ptr<lm::StateDb> db = lm::StateDb::open(lm::StateDb::OpenMode::kExisting, &absent);
    char root[PATH_MAX];
    if (realpath(argv[1], root) == nullptr) return 1;
    std::unique_ptr<lm::LabelPolicy> policy = lm::LabelPolicy::loadUnder(db.get(), root);
    if (!policy) return 1;
    lm::TreeLabelOptions options;
    options.workers = static_cast<unsigned>(std::atoi(argv[2]));
    options.progress = false;
    options.createFirst = argc != 4;
    options.cacheFile = lm::stateDirectory() + "/label-tree.cache";
    if (lm::labelTree(argv[1], *policy, options, &stats) != 0) return 1;
  }
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("%.3f %llu %llu\n", seconds, static_cast<unsigned long long>(stats.seen),
              static_cast<unsigned long long>(stats.written));
  return 0;
}
