// Registry of the version records of the libraries loaded into the process.
#include <algorithm>
#include <mutex>

#include "lxopt/host.h"

namespace LxOpt {
namespace {

struct Registry {
  std::mutex mutex;
  std::vector<LxVersionFunction> functions;
};

Registry& TheRegistry() {
  static Registry registry;
  return registry;
}

}  // namespace

void LxRegisterVersion(LxVersionFunction fn) {
  if (fn == nullptr) return;
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  auto& list = registry.functions;
  if (std::find(list.begin(), list.end(), fn) == list.end()) list.push_back(fn);
}

std::vector<LxVersionRecord> LxRegisteredVersions() {
  std::vector<LxVersionFunction> functions;
  {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    functions = registry.functions;
  }
  std::vector<LxVersionRecord> records;
  records.reserve(functions.size());
  for (LxVersionFunction fn : functions) records.push_back(fn());
  return records;
}

}  // namespace LxOpt
