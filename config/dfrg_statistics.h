// Provisional declaration of the statistics object used by the engine spine.
#ifndef GLIDEWELL_CONFIG_DFRG_STATISTICS_H_
#define GLIDEWELL_CONFIG_DFRG_STATISTICS_H_

#include <cstdint>
#include <string>

#include "platform/wintypes.h"

namespace glidewell {

class CDfrgStatistics {
 public:
  static CDfrgStatistics* instance();
  static void create(HKEY root, const std::string& registryKeyPath);
  static void destroy();
  void addProcessed(uint32_t n) {}
  void addMoved(uint32_t n) {}
  void addDefragged(uint32_t n) {}
  void setLastFile(const std::wstring& path) {}
  void setStatus(int s) {}
  int getStatus() { return 0; }
  void resetRun() {}
  void resetAll() {}
  void flush(bool force) {}
};

}  // namespace glidewell

#endif
