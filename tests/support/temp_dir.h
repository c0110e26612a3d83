// TempDir: a fresh directory for one test, removed with everything in it.
#ifndef GLIDEWELL_TESTS_SUPPORT_TEMP_DIR_H_
#define GLIDEWELL_TESTS_SUPPORT_TEMP_DIR_H_

#include <string>

namespace glidewell {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // The directory with a trailing separator, as an install directory is given.
  std::wstring path() const;
  std::string native() const { return dir_; }
  // native() + "/" + relative
  std::string file(const std::string& relative) const { return dir_ + "/" + relative; }

 private:
  std::string dir_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_SUPPORT_TEMP_DIR_H_
