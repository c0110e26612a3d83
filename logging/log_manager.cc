#include "logging/log_manager.h"

#include <memory>

namespace glidewell {

namespace {

std::unique_ptr<LogManager>& managerSlot() {
  static std::unique_ptr<LogManager> manager;
  return manager;
}

// Deletes through the first pair that has a destruction function; objects
// whose pairs have none are deleted through the virtual destructor.
void destroyObject(Configurable* object, const LogObjectFactory& first, const LogObjectFactory& second) {
  if (object == nullptr) return;
  if (first.destroy) {
    first.destroy(object);
  } else if (second.destroy) {
    second.destroy(object);
  } else {
    delete object;
  }
}

}  // namespace

const std::vector<Appender*>& configuredAppenders() {
  static const std::vector<Appender*> none;
  LogManager* manager = LogManager::existing();
  return manager != nullptr ? manager->appenders() : none;
}

LogManager* LogManager::instance() {
  std::unique_ptr<LogManager>& slot = managerSlot();
  if (slot == nullptr) slot.reset(new LogManager);
  return slot.get();
}

LogManager* LogManager::existing() { return managerSlot().get(); }

void LogManager::release() { managerSlot().reset(); }

LogManager::~LogManager() {
  // Appenders go through the appender pair when one is registered, else the
  // generic pair; filters and layouts through the pair of the list they are in.
  for (Appender* a : appenders_) destroyObject(a, appenderFactory_, generic_);
  for (Filter* f : filters_) destroyObject(f, filterFactory_, generic_);
  for (Layout* l : layouts_) destroyObject(l, layoutFactory_, generic_);
  for (Configurable* c : genericObjects_) destroyObject(c, generic_, LogObjectFactory{});
}

Configurable* LogManager::make(const LogObjectFactory& kindFactory, const std::string& type, bool* byKind) {
  *byKind = false;
  if (kindFactory.create) {
    if (Configurable* made = kindFactory.create(type)) {
      *byKind = true;
      return made;
    }
  }
  return generic_.create ? generic_.create(type) : nullptr;
}

template <typename Kind>
Kind* LogManager::adopt(Configurable* made, const LogObjectFactory& maker) {
  if (made == nullptr) return nullptr;
  Kind* object = dynamic_cast<Kind*>(made);
  if (object == nullptr) destroyObject(made, maker, LogObjectFactory{});
  return object;
}

Appender* LogManager::createAppender(const std::string& type) {
  appenders_.reserve(appenders_.size() + 1);  // so that adding the new object cannot fail
  bool byKind = false;
  Configurable* made = make(appenderFactory_, type, &byKind);
  Appender* appender = adopt<Appender>(made, byKind ? appenderFactory_ : generic_);
  if (appender != nullptr) appenders_.push_back(appender);
  return appender;
}

template <typename Kind>
Kind* LogManager::createPart(const LogObjectFactory& kindFactory, const std::string& type, std::vector<Kind*>* kindList) {
  kindList->reserve(kindList->size() + 1);
  genericObjects_.reserve(genericObjects_.size() + 1);
  bool byKind = false;
  Configurable* made = make(kindFactory, type, &byKind);
  Kind* part = adopt<Kind>(made, byKind ? kindFactory : generic_);
  if (part != nullptr) {
    if (byKind) {
      kindList->push_back(part);
    } else {
      genericObjects_.push_back(part);
    }
  }
  return part;
}

Filter* LogManager::createFilter(const std::string& type) { return createPart(filterFactory_, type, &filters_); }

Layout* LogManager::createLayout(const std::string& type) { return createPart(layoutFactory_, type, &layouts_); }

}  // namespace glidewell
