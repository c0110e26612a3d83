#include "config/state_file.h"

#include <vector>

#include "platform/text.h"

namespace glidewell {

namespace {
void putLittleEndian(uint8_t* out, uint64_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) out[i] = static_cast<uint8_t>(v >> (8 * i));
}
uint64_t getLittleEndian(const uint8_t* in, int bytes) {
  uint64_t v = 0;
  for (int i = 0; i < bytes; ++i) v |= static_cast<uint64_t>(in[i]) << (8 * i);
  return v;
}
}  // namespace

StateFileReader::StateFileReader(const std::wstring& path) {
  file_ = Env::current()->openFile(path, FileOpen::kReadExisting, nullptr);
  if (file_ && !file_->size(&remaining_)) file_.reset();
}

bool StateFileReader::readBytes(void* buffer, uint32_t n) {
  if (!file_ || remaining_ < n) return false;
  uint32_t done = 0;
  if (!file_->read(buffer, n, &done) || done != n) return false;
  remaining_ -= n;
  return true;
}

bool StateFileReader::readInt32(int32_t* v) {
  uint8_t b[4];
  if (!readBytes(b, 4)) return false;
  *v = static_cast<int32_t>(static_cast<uint32_t>(getLittleEndian(b, 4)));
  return true;
}

bool StateFileReader::readInt64(int64_t* v) {
  uint8_t b[8];
  if (!readBytes(b, 8)) return false;
  *v = static_cast<int64_t>(getLittleEndian(b, 8));
  return true;
}

bool StateFileReader::readBool(bool* v) {
  uint8_t b = 0;
  if (!readBytes(&b, 1)) return false;
  *v = b != 0;
  return true;
}

bool StateFileReader::readCount(int32_t* count, uint32_t minBytesEach) {
  if (!readInt32(count) || *count < 0) return false;
  return static_cast<uint64_t>(*count) * minBytesEach <= remaining_;
}

bool StateFileReader::readUtf16(std::u16string* units) {
  int32_t n = 0;
  if (!readCount(&n, 2)) return false;
  std::vector<uint8_t> bytes(static_cast<size_t>(n) * 2);
  if (n > 0 && !readBytes(bytes.data(), static_cast<uint32_t>(bytes.size()))) return false;
  units->resize(static_cast<size_t>(n));
  for (size_t i = 0; i < units->size(); ++i) (*units)[i] = static_cast<char16_t>(getLittleEndian(&bytes[i * 2], 2));
  return true;
}

bool StateFileReader::readString(std::wstring* s) {
  std::u16string units;
  if (!readUtf16(&units)) return false;
  size_t nul = units.find(u'\0');
  if (nul != std::u16string::npos) units.resize(nul);
  *s = fromUtf16(units);
  return true;
}

StateFileWriter::StateFileWriter(const std::wstring& path) {
  file_ = Env::current()->openFile(path, FileOpen::kCreateAlways, nullptr);
}

bool StateFileWriter::writeBytes(const void* buffer, uint32_t n) {
  if (!file_) return false;
  uint32_t done = 0;
  return file_->write(buffer, n, &done) && done == n;
}

bool StateFileWriter::writeInt32(int32_t v) {
  uint8_t b[4];
  putLittleEndian(b, static_cast<uint32_t>(v), 4);
  return writeBytes(b, 4);
}

bool StateFileWriter::writeInt64(int64_t v) {
  uint8_t b[8];
  putLittleEndian(b, static_cast<uint64_t>(v), 8);
  return writeBytes(b, 8);
}

bool StateFileWriter::writeBool(bool v) {
  uint8_t b = v ? 1 : 0;
  return writeBytes(&b, 1);
}

bool StateFileWriter::writeString(const std::wstring& s) { return writeUtf16(toUtf16(s)); }

bool StateFileWriter::writeUtf16(const std::u16string& units) {
  std::vector<uint8_t> bytes(4 + units.size() * 2);
  putLittleEndian(bytes.data(), units.size(), 4);
  for (size_t i = 0; i < units.size(); ++i) putLittleEndian(&bytes[4 + i * 2], units[i], 2);
  return writeBytes(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

}  // namespace glidewell
