#include "sim/sim_node.h"

#include <algorithm>

#include "sim/sim_names.h"

namespace glidewell {

void appendRun(std::vector<SimRun>& runs, const SimRun& run) {
  if (run.length == 0) return;
  if (!runs.empty()) {
    SimRun& last = runs.back();
    bool continues = last.vcnEnd() == run.vcn &&
                     (last.isVirtual() ? run.isVirtual()
                                       : (!run.isVirtual() && last.lcn + last.length == run.lcn &&
                                          last.tag + last.length == run.tag));
    if (continues) {
      last.length += run.length;
      return;
    }
  }
  runs.push_back(run);
  if (run.isVirtual()) runs.back().tag = 0;
}

size_t findRun(const std::vector<SimRun>& runs, uint64_t vcn) {
  auto it = std::upper_bound(runs.begin(), runs.end(), vcn,
                             [](uint64_t v, const SimRun& r) { return v < r.vcnEnd(); });
  if (it == runs.end() || it->vcn > vcn) return runs.size();
  return static_cast<size_t>(it - runs.begin());
}

std::vector<SimRun> sliceRuns(const std::vector<SimRun>& runs, uint64_t from, uint64_t to) {
  std::vector<SimRun> out;
  for (size_t i = findRun(runs, from); i < runs.size() && runs[i].vcn < to; ++i) {
    const SimRun& r = runs[i];
    uint64_t a = std::max(r.vcn, from), b = std::min(r.vcnEnd(), to);
    SimRun piece = r;
    piece.vcn = a;
    piece.length = b - a;
    if (!r.isVirtual()) {
      piece.lcn = r.lcn + (a - r.vcn);
      piece.tag = r.tag + (a - r.vcn);
    }
    out.push_back(piece);
  }
  return out;
}

uint64_t storedClusters(const std::vector<SimRun>& runs) {
  uint64_t n = 0;
  for (const SimRun& r : runs) {
    if (!r.isVirtual()) n += r.length;
  }
  return n;
}

uint64_t countFragments(const std::vector<SimRun>& runs) {
  uint64_t n = 0, nextLcn = kNoCluster;
  for (const SimRun& r : runs) {
    if (r.isVirtual()) continue;
    if (r.lcn != nextLcn) ++n;
    nextLcn = r.lcn + r.length;
  }
  return n;
}

namespace {

auto childOrder = [](const std::shared_ptr<SimNode>& node, const std::u16string& name) {
  return compareNames(node->name, name) < 0;
};

}  // namespace

const std::shared_ptr<SimNode>* SimNode::findChild(const std::u16string& name) const {
  auto it = std::lower_bound(children.begin(), children.end(), name, childOrder);
  return (it != children.end() && sameName((*it)->name, name)) ? &*it : nullptr;
}

SimNode* SimNode::child(const std::u16string& name) const {
  const std::shared_ptr<SimNode>* found = findChild(name);
  return found != nullptr ? found->get() : nullptr;
}

std::shared_ptr<SimNode> SimNode::sharedChild(const std::u16string& name) const {
  const std::shared_ptr<SimNode>* found = findChild(name);
  return found != nullptr ? *found : nullptr;
}

void SimNode::addChild(std::shared_ptr<SimNode> node) {
  auto it = std::lower_bound(children.begin(), children.end(), node->name, childOrder);
  node->parent = this;
  children.insert(it, std::move(node));
}

std::shared_ptr<SimNode> SimNode::takeChild(const SimNode* node) {
  auto it = std::lower_bound(children.begin(), children.end(), node->name, childOrder);
  if (it == children.end() || it->get() != node) return nullptr;
  std::shared_ptr<SimNode> taken = std::move(*it);
  children.erase(it);
  taken->parent = nullptr;
  return taken;
}

}  // namespace glidewell
