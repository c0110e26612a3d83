#include "config/dfrg_statistics.h"

#include <memory>

namespace glidewell {
namespace {
std::unique_ptr<CDfrgStatistics> theStatistics;
}
CDfrgStatistics* CDfrgStatistics::instance() { return theStatistics.get(); }
void CDfrgStatistics::create(HKEY, const std::string&) { theStatistics = std::make_unique<CDfrgStatistics>(); }
void CDfrgStatistics::destroy() { theStatistics.reset(); }
}  // namespace glidewell
