// libFuzzer target for the configuration reader: LogManager::loadConfig on
// arbitrary bytes must never crash, hang or leak, whatever objects it makes.
// It also checks the nesting scanner that guards the parser: on every text
// the parser accepts, the scanner's depth is never below the real one.
//
// The target is built from the logging sources alone, with an environment of
// its own in which the configuration file is the input and log files are
// written nowhere.
#include <tinyxml.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "logging/log_config.h"
#include "logging/log_manager.h"
#include "logging/log_setup.h"
#include "logging/xml_nesting.h"
#include "platform/env.h"

namespace glidewell {

namespace {

class InputFile : public File {
 public:
  explicit InputFile(const std::vector<char>* data) : data_(data) {}
  bool read(void* buffer, uint32_t n, uint32_t* done) override {
    size_t left = data_->size() - pos_;
    *done = static_cast<uint32_t>(n < left ? n : left);
    std::memcpy(buffer, data_->data() + pos_, *done);
    pos_ += *done;
    return true;
  }
  bool write(const void*, uint32_t n, uint32_t* done) override {
    *done = n;
    return true;
  }
  bool flush() override { return true; }
  bool size(uint64_t* s) override {
    *s = data_->size();
    return true;
  }

 private:
  const std::vector<char>* data_;
  size_t pos_ = 0;
};

class FuzzEnv : public Env {
 public:
  std::vector<char> input;
  std::vector<char> empty;

  void setInstallDirectory(const std::wstring&) override {}
  std::wstring installDirectory() override { return L""; }
  uint32_t timeGetTime() override { return 0; }
  uint32_t tickCount() override { return 0; }
  SYSTEMTIME localTime() override {
    SYSTEMTIME t{};
    t.wYear = 2024;
    t.wMonth = 1;
    t.wDay = 31;
    return t;
  }
  bool systemTimeToFileTime(const SYSTEMTIME&, uint64_t*) override { return false; }
  uint64_t fileTimeNow() override { return 0; }
  void sleep(uint32_t) override {}
  std::unique_ptr<File> openFile(const std::wstring&, FileOpen how, DWORD*) override {
    return std::make_unique<InputFile>(how == FileOpen::kReadExisting ? &input : &empty);
  }
  std::FILE* openStream(const std::wstring&, const char*) override { return nullptr; }
  bool createDirectory(const std::wstring&) override { return false; }
  bool deleteFile(const std::wstring&) override { return false; }
  std::wstring currentDirectory() override { return L""; }
  DWORD logicalDrives() override { return 0; }
  UINT driveType(const std::wstring&) override { return 0; }
  bool volumeLabel(const std::wstring&, std::wstring*) override { return false; }
  std::unique_ptr<OsHandle> openPipeClient(const std::wstring&, DWORD*) override { return nullptr; }
  bool waitNamedPipe(const std::wstring&, uint32_t) override { return false; }
  void exitProcess(int) override { __builtin_trap(); }
};

FuzzEnv& fuzzEnv() {
  static FuzzEnv* env = new FuzzEnv;
  return *env;
}

// The deepest element of a parsed document, walked without recursion.
size_t treeDepth(const TiXmlNode* top) {
  size_t deepest = 0;
  std::vector<std::pair<const TiXmlNode*, size_t>> pending{{top, 0}};
  while (!pending.empty()) {
    auto [node, depth] = pending.back();
    pending.pop_back();
    for (const TiXmlNode* c = node->FirstChild(); c != nullptr; c = c->NextSibling()) {
      size_t d = depth + (c->ToElement() != nullptr && c->FirstChild() != nullptr ? 1 : 0);
      if (d > deepest) deepest = d;
      pending.push_back({c, d});
    }
  }
  return deepest;
}

void checkScanner(const std::vector<char>& bytes) {
  std::vector<char> text(bytes);
  text.push_back('\0');
  size_t scanned = xmlNestingDepth(text.data(), kMaxLogConfigNesting);
  if (scanned > kMaxLogConfigNesting) return;  // refused; the parser never sees it
  TiXmlDocument doc;
  doc.SetTabSize(0);
  doc.Parse(text.data(), nullptr, TIXML_ENCODING_LEGACY);
  if (!doc.Error() && treeDepth(&doc) > scanned) __builtin_trap();
}

}  // namespace

// The system environment of this program.
Env* Env::system() { return &fuzzEnv(); }

}  // namespace glidewell

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace glidewell;
  FuzzEnv& env = fuzzEnv();
  env.input.assign(reinterpret_cast<const char*>(data), reinterpret_cast<const char*>(data) + size);
  checkScanner(env.input);
  LogManager* manager = LogManager::instance();
  manager->setGenericFactory(LogObjectFactory{createLogObject, destroyLogObject});
  manager->loadConfig(L"C:\\install\\config\\logconfig.xml");
  LogManager::release();
  return 0;
}
