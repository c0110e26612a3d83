// Reading logconfig.xml: the file, the document walk, and the collection of
// settings from element paths.
//
// The file's shape:
//
//   <anything>
//     <appender name="FileAppender">
//       <settings>
//         <filename value="glidewell.log"/>
//         <multithreading value="true"/>
//       </settings>
//       <filter name="priority"><settings>...</settings><filter .../></filter>
//       <layout name="SimpleLayout"><settings>...</settings></layout>
//     </appender>
//   </anything>
//
// A setting's key is the path of element names below <settings>, joined by
// "/" ("includeTime/timeformat"); its value is the "value" attribute.
#include <tinyxml.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <vector>

#include "logging/log_config.h"
#include "logging/log_manager.h"
#include "logging/xml_nesting.h"
#include "platform/env.h"

namespace glidewell {

namespace {

constexpr uint32_t kReadPiece = 1024;

// The whole file plus a NUL. The parser may look a few bytes past a NUL in
// malformed text, so the spare bytes after it are zero too.
bool readConfigText(const std::wstring& path, std::vector<char>* text) {
  DWORD error = 0;
  std::unique_ptr<File> file = Env::current()->openFile(path, FileOpen::kReadExisting, &error);
  if (file == nullptr) return false;
  uint64_t size = 0;
  if (!file->size(&size) || size == 0 || size > kMaxLogConfigSize) return false;
  text->assign(static_cast<size_t>(size) + 10, '\0');
  uint64_t got = 0;
  while (got < size) {
    uint32_t want = static_cast<uint32_t>(std::min<uint64_t>(kReadPiece, size - got));
    uint32_t done = 0;
    if (!file->read(text->data() + got, want, &done)) return false;
    if (done == 0) break;  // the file shrank while we read it
    got += done;
  }
  (*text)[static_cast<size_t>(got)] = '\0';
  return true;
}

// Collects the settings of a chain of sibling elements that starts at node.
// An element's key is prefix + its name; its children are collected under
// that key + "/". The <settings> container itself (an element whose key
// would be exactly "settings") contributes no path, and its siblings are not
// visited. Values are assigned after the children of every sibling, in
// reverse document order, so that of two siblings with the same key the
// first one's value stands; this is the order in which the engine has
// always applied them.
void collectSettings(const TiXmlNode* node, const std::string& prefix, LogSettings* out) {
  std::vector<const TiXmlElement*> chain;
  while (node != nullptr && node->ToElement() != nullptr) {
    const TiXmlElement* element = node->ToElement();
    std::string name = prefix + element->Value();
    if (name == "settings") name.clear();
    chain.push_back(element);
    collectSettings(element->FirstChildElement(), name.empty() ? std::string() : name + "/", out);
    if (name.empty()) break;
    node = element->NextSiblingElement();
  }
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    if (const char* value = (*it)->Attribute("value")) (*out)[prefix + (*it)->Value()] = value;
  }
}

// An object is configured only when the file gave it at least one setting;
// otherwise it keeps the state it was constructed with.
void applySettings(Configurable* object, const TiXmlNode* start) {
  LogSettings collected;
  collectSettings(start, std::string(), &collected);
  if (collected.empty()) return;
  mergeSettings(object, collected, Env::current()->localTime());
  object->configure();
}

class ConfigReader {
 public:
  explicit ConfigReader(LogManager* manager) : manager_(manager) {}

  // The root's children, then the root itself, then whatever follows the
  // root at the top of the document: every "appender" element among them is
  // read. (A root that is itself an "appender" is thus read after its
  // children.)
  void readDocument(const TiXmlDocument& doc) {
    const TiXmlElement* root = doc.FirstChildElement();
    if (root == nullptr) return;
    for (const TiXmlNode* n = root->FirstChild(); n != nullptr; n = n->NextSibling()) examine(n);
    examine(root);
    for (const TiXmlNode* n = root->NextSibling(); n != nullptr; n = n->NextSibling()) examine(n);
  }

 private:
  void examine(const TiXmlNode* node) {
    const TiXmlElement* element = node->ToElement();
    if (element != nullptr && std::string(element->Value()) == "appender") readAppender(element);
  }

  // Settings start at the appender's first child element, which the file
  // normally makes its <settings>; elements before it add keys under their
  // own path, elements after it nothing.
  void readAppender(const TiXmlElement* element) {
    const char* type = element->Attribute("name");
    if (type == nullptr) return;
    Appender* appender = manager_->createAppender(type);
    if (appender == nullptr) return;
    applySettings(appender, element->FirstChildElement());
    if (const TiXmlElement* filter = element->FirstChildElement("filter")) readFilter(filter, appender, nullptr);
    if (const TiXmlElement* layout = element->FirstChildElement("layout")) readLayout(layout, appender);
  }

  // A filter's settings start at the first child node of its <settings>: a
  // comment there leaves the filter with its defaults. A nested <filter>
  // becomes the next link of the chain.
  void readFilter(const TiXmlElement* element, Appender* owner, Filter* previous) {
    const char* type = element->Attribute("name");
    if (type == nullptr) return;
    Filter* filter = manager_->createFilter(type);
    if (filter == nullptr) return;
    if (const TiXmlElement* settings = element->FirstChildElement("settings")) {
      applySettings(filter, settings->FirstChild());
    }
    if (const TiXmlElement* next = element->FirstChildElement("filter")) readFilter(next, nullptr, filter);
    if (owner != nullptr) {
      owner->setFilter(filter);
    } else {
      previous->setNext(filter);
    }
  }

  void readLayout(const TiXmlElement* element, Appender* appender) {
    const char* type = element->Attribute("name");
    if (type == nullptr) return;
    Layout* layout = manager_->createLayout(type);
    if (layout == nullptr) return;
    if (const TiXmlElement* settings = element->FirstChildElement("settings")) applySettings(layout, settings);
    appender->setLayout(layout);
  }

  LogManager* manager_;
};

}  // namespace

std::string stampedFileName(const std::string& name, const SYSTEMTIME& now) {
  size_t dot = name.rfind('.');
  std::string base = dot == std::string::npos ? name : name.substr(0, dot);
  std::string extension = dot == std::string::npos ? std::string() : name.substr(dot);
  char stamp[40];
  std::snprintf(stamp, sizeof(stamp), "_%04u%02u%02u_%02u%02u%02u", unsigned{now.wYear}, unsigned{now.wMonth},
                unsigned{now.wDay}, unsigned{now.wHour}, unsigned{now.wMinute}, unsigned{now.wSecond});
  return base + stamp + extension;
}

void mergeSettings(Configurable* object, const LogSettings& collected, const SYSTEMTIME& now) {
  for (const auto& entry : collected) object->setSetting(entry.first, entry.second);
  std::string filename;
  bool stamp = false;
  for (const auto& entry : object->settings()) {
    if (entry.first == "filename") filename = entry.second;
    if (entry.first == "addTimeStampToFilename" && settingIsTrue(entry.second)) stamp = true;
  }
  if (!filename.empty() && stamp) object->setSetting("filename", stampedFileName(filename, now));
}

bool LogManager::loadConfig(const std::wstring& path) {
  try {
    std::vector<char> text;
    if (!readConfigText(path, &text)) return false;
    const char* start = text.data();
    // A UTF-8 byte order mark (as Windows editors write it) is not part of
    // the document; the text itself is taken byte for byte.
    if (std::equal(start, start + 3, "\xEF\xBB\xBF")) start += 3;
    if (xmlNestingDepth(start, kMaxLogConfigNesting) > kMaxLogConfigNesting) return false;
    TiXmlDocument doc;
    doc.SetTabSize(0);  // no row/column tracking: nothing reports it
    doc.Parse(start, nullptr, TIXML_ENCODING_LEGACY);
    if (doc.Error()) return false;
    ConfigReader(this).readDocument(doc);
    return true;
  } catch (const std::exception&) {
    // Out of memory in the parser or while building objects: what exists stays.
    return false;
  }
}

}  // namespace glidewell
