// The unhandled-exception report: the trees built from the exception record
// and the x86 context, and the report written through the log.
#include <cstring>

#include "log_test_util.h"
#include "logging/exception_report.h"

namespace glidewell {
namespace {

using testing_log::LogTest;
using testing_log::RecordingAppender;
using testing_log::TempDir;

X86ExceptionRecord record(uint32_t code, std::initializer_list<uintptr_t> params) {
  X86ExceptionRecord r;
  std::memset(&r, 0, sizeof(r));
  r.ExceptionCode = code;
  r.ExceptionAddress = 0x01020304;
  r.NumberParameters = static_cast<uint32_t>(params.size());
  size_t i = 0;
  for (uintptr_t p : params) r.ExceptionInformation[i++] = p;
  return r;
}

std::string hexAddress(const void* p) {
  char buf[24];
  std::snprintf(buf, sizeof(buf), "0x%08llX", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
  return buf;
}

// "Name: value" lines of a tree, one space per level, as the layout renders it.
std::string render(const LogProperty& p) {
  std::string out;
  SimpleLayout::renderProperties(LogPropertyList{p}, 0, &out);
  return out;
}

TEST(ExceptionRecordTreeTest, AnAccessViolationReadingAddress0x10) {
  X86ExceptionRecord r = record(0xC0000005u, {0, 0x10});
  EXPECT_EQ(render(exceptionRecordProperty(r)),
            "ExceptionRecord: " + hexAddress(&r) +
                "\n"
                " Address: 0x01020304\n"
                " Code: 0xc0000005\n"
                " ExceptionType: EXCEPTION_ACCESS_VIOLATION\n"
                " ExceptionFlag: Continuable\n"
                " NumberParameters: 2\n"
                " ExceptionInformation: 0x00000000\n"
                "  Action: Read\n"
                "  Address: 0x00000010\n");
  r.ExceptionInformation[0] = 1;
  EXPECT_EQ(exceptionRecordProperty(r).children()[5].children()[0].value(), "Write");
  r.ExceptionInformation[0] = 8;
  EXPECT_EQ(exceptionRecordProperty(r).children()[5].children()[0].value(), "Unknown");
}

TEST(ExceptionRecordTreeTest, OtherCodesListTheirParameters) {
  X86ExceptionRecord r = record(0x80000003u, {0xABCDEF});
  LogProperty tree = exceptionRecordProperty(r);
  EXPECT_EQ(tree.children()[2].value(), "EXCEPTION_BREAKPOINT");
  const LogProperty& info = tree.children()[5];
  EXPECT_EQ(info.value(), "0x00ABCDEF");
  ASSERT_EQ(info.children().size(), 1u);
  EXPECT_EQ(info.children()[0].name(), "Information 0");
  EXPECT_EQ(info.children()[0].value(), "0x00abcdef");

  X86ExceptionRecord cpp = record(0xE06D7363u, {1, 2, 3});
  cpp.ExceptionFlags = 1;
  tree = exceptionRecordProperty(cpp);
  EXPECT_EQ(tree.children()[1].value(), "0xe06d7363");
  EXPECT_EQ(tree.children()[2].value(), "Unknown");
  EXPECT_EQ(tree.children()[3].value(), "NonContinuable");
  EXPECT_EQ(tree.children()[5].children().size(), 3u);
  EXPECT_EQ(tree.children()[5].children()[2].name(), "Information 2");
}

TEST(ExceptionRecordTreeTest, FlagsOtherThanZeroOrOneAreUnknown) {
  X86ExceptionRecord r = record(0xC0000094u, {});
  r.ExceptionFlags = 2;
  EXPECT_EQ(exceptionRecordProperty(r).children()[3].value(), "Unknown");
  EXPECT_TRUE(exceptionRecordProperty(r).children()[5].children().empty());
}

TEST(ExceptionRecordTreeTest, ACountBeyondFifteenIsReportedButNotFollowed) {
  X86ExceptionRecord r = record(0xC0000096u, {});
  r.NumberParameters = 1000;
  LogProperty tree = exceptionRecordProperty(r);
  EXPECT_EQ(tree.children()[4].value(), "1000");
  EXPECT_EQ(tree.children()[5].children().size(), 15u);
}

TEST(ExceptionRecordTreeTest, ANestedRecordIsTheLastChildWithTheSameShape) {
  X86ExceptionRecord inner = record(0xC0000005u, {1, 0x20});
  X86ExceptionRecord outer = record(0xC0000025u, {});
  outer.ExceptionRecord = &inner;
  LogProperty tree = exceptionRecordProperty(outer);
  ASSERT_EQ(tree.children().size(), 7u);
  EXPECT_EQ(tree.children()[2].value(), "EXCEPTION_NONCONTINUABLE_EXCEPT");
  const LogProperty& nested = tree.children()[6];
  EXPECT_EQ(render(nested), render(exceptionRecordProperty(inner)));
  EXPECT_EQ(nested.value(), hexAddress(&inner));
}

TEST(ExceptionRecordTreeTest, ALoopOfNestedRecordsIsCut) {
  X86ExceptionRecord r = record(0xC0000005u, {0, 0});
  r.ExceptionRecord = &r;
  int depth = 0;
  LogProperty tree = exceptionRecordProperty(r);
  for (const LogProperty* p = &tree; p->children().size() == 7; p = &p->children()[6]) ++depth;
  EXPECT_EQ(depth, 16);
}

TEST(ExceptionTypeTest, EveryPublishedCodeHasItsName) {
  struct {
    uint32_t code;
    const char* name;
  } cases[] = {{0xC000008Cu, "EXCEPTION_ARRAY_BOUNDS_EXCEEDED"}, {0x80000002u, "EXCEPTION_DATATYPE_MISALIGNMENT"},
               {0xC000008Du, "EXCEPTION_FLT_DENORMAL_OPERAND"}, {0xC000008Eu, "EXCEPTION_FLT_DIVIDE_BY_ZERO"},
               {0xC000008Fu, "EXCEPTION_FLT_INEXACT_RESULT"},   {0xC0000090u, "EXCEPTION_FLT_INVALID_OPERATION"},
               {0xC0000091u, "EXCEPTION_FLT_OVERFLOW"},         {0xC0000092u, "EXCEPTION_FLT_STACK_CHECK"},
               {0xC0000093u, "EXCEPTION_FLT_UNDERFLOW"},        {0xC000001Du, "EXCEPTION_ILLEGAL_INSTRUCTION"},
               {0xC0000006u, "EXCEPTION_IN_PAGE_ERROR"},        {0xC0000094u, "EXCEPTION_INT_DIVIDE_BY_ZERO"},
               {0xC0000095u, "EXCEPTION_INT_OVERFLOW"},         {0xC0000026u, "EXCEPTION_INVALID_DISPOSITION"},
               {0xC0000096u, "EXCEPTION_PRIV_INSTRUCTION"},     {0x80000004u, "EXCEPTION_SINGLE_STEP"},
               {0xC00000FDu, "EXCEPTION_STACK_OVERFLOW"},       {0, "Unknown"}};
  for (const auto& c : cases) EXPECT_EQ(exceptionTypeName(c.code), c.name) << std::hex << c.code;
}

X86Context fullContext() {
  X86Context x;
  std::memset(&x, 0, sizeof(x));
  x.ContextFlags = 0x1003F;
  x.Ebp = 1244916;
  x.Eip = 0xFFFFFFFFu;
  x.Eax = 7;
  x.SegGs = 43;
  x.Dr7 = 1;
  x.FloatSave.ControlWord = 0x27F;
  x.FloatSave.RegisterArea[0] = 0xAB;
  x.FloatSave.Cr0NpxState = 9;
  x.ExtendedRegisters[0] = 0x0F;
  x.ExtendedRegisters[511] = 0xFF;
  return x;
}

std::vector<std::string> childNames(const LogProperty& p) {
  std::vector<std::string> names;
  for (const LogProperty& c : p.children()) names.push_back(c.name());
  return names;
}

TEST(ContextTreeTest, AllGroupsInTheirOrderWithTheirForms) {
  X86Context x = fullContext();
  LogProperty tree = contextProperty(x);
  EXPECT_EQ(tree.name(), "Context");
  EXPECT_EQ(tree.value(), hexAddress(&x));
  std::vector<std::string> expected{"Ebp",   "Eip",   "SegCs", "EFlags", "Esp", "SegSs", "Edi", "Esi", "Ebx",
                                    "Edx",   "Ecx",   "Eax",   "FloatingSaveArea",     "SegDs", "SegEs", "SegFs",
                                    "SegGs", "Dr0",   "Dr1",   "Dr2",    "Dr3", "Dr6", "Dr7", "ExtendedRegisters"};
  EXPECT_EQ(childNames(tree), expected);
  EXPECT_EQ(tree.children()[0].value(), "1244916");
  EXPECT_EQ(tree.children()[1].value(), "4294967295");
  EXPECT_EQ(tree.children()[16].value(), "43");

  const LogProperty& fp = tree.children()[12];
  EXPECT_EQ(fp.value(), hexAddress(&x.FloatSave));
  EXPECT_EQ(childNames(fp), (std::vector<std::string>{"ControlWord", "StatusWord", "TagWord", "ErrorOffset",
                                                      "ErrorSelector", "DataOffset", "DataSelector",
                                                      "RegisterArea", "Cr0NpxState"}));
  EXPECT_EQ(fp.children()[0].value(), "0x0000027f");
  EXPECT_EQ(fp.children()[7].value().size(), 80u * 3);
  EXPECT_EQ(fp.children()[7].value().substr(0, 6), " ab 00");
  EXPECT_EQ(fp.children()[8].value(), "9");

  const std::string& ext = tree.children()[23].value();
  EXPECT_EQ(ext.size(), 512u * 3);
  EXPECT_EQ(ext.substr(0, 3), " 0f");
  EXPECT_EQ(ext.substr(ext.size() - 3), " ff");
}

TEST(ContextTreeTest, OnlyTheGroupsWhoseBitsAreAllSet) {
  X86Context x = fullContext();
  x.ContextFlags = 0x10003;
  EXPECT_EQ(contextProperty(x).children().size(), 12u);
  x.ContextFlags = 0x3F;  // without the x86 family bit no group is complete
  EXPECT_TRUE(contextProperty(x).children().empty());
  x.ContextFlags = 0x10020;
  EXPECT_EQ(childNames(contextProperty(x)), std::vector<std::string>{"ExtendedRegisters"});
}

TEST(ByteDumpTest, EachByteIsASpaceAndTwoLowerCaseDigits) {
  const uint8_t bytes[] = {0x00, 0x0a, 0xff};
  EXPECT_EQ(byteDumpProperty("B", bytes, 3).value(), " 00 0a ff");
  EXPECT_EQ(byteDumpProperty("B", bytes, 0).value(), "");
}

class ReportTest : public LogTest {};

TEST_F(ReportTest, BeforeInitialisationNothingIsLoggedAndTheResultIsOne) {
  RecordingAppender* out = addRecorder();
  ASSERT_FALSE(loggingInitialised());
  X86ExceptionRecord r = record(0xC0000005u, {0, 0x10});
  X86Context x = fullContext();
  EXPECT_EQ(reportUnhandledException(&r, &x), 1);
  EXPECT_TRUE(out->seen().empty());
}

TEST_F(ReportTest, TheReportIsTwoMessagesUnderTheFailingThreadsLogger) {
  TempDir dir;
  initLogging(widen(dir.path() + "/"));  // no configuration file
  RecordingAppender* out = addRecorder();
  X86ExceptionRecord r = record(0xC0000005u, {0, 0x10});
  X86Context x = fullContext();
  {
    Logger scope("processFile");
    EXPECT_EQ(reportUnhandledException(&r, &x), 1);
    EXPECT_EQ(currentLogger(), &scope);
  }
  EXPECT_EQ(reportUnhandledException(nullptr, nullptr), 1);
  auto seen = out->seen();
  deinitLogging();

  ASSERT_EQ(seen.size(), 4u);
  EXPECT_EQ(seen[0].path, "main.processFile.Unhandled Exception Occured");
  EXPECT_EQ(seen[0].message, "Unhandled Exception Occured");
  EXPECT_EQ(seen[0].priority, 700);
  EXPECT_TRUE(seen[0].properties.empty());
  EXPECT_EQ(seen[1].message, "An unhandled Exception occured");
  EXPECT_EQ(seen[1].priority, 500);
  ASSERT_EQ(seen[1].properties.size(), 2u);
  EXPECT_EQ(render(seen[1].properties[0]), render(exceptionRecordProperty(r)));
  EXPECT_EQ(render(seen[1].properties[1]), render(contextProperty(x)));
  EXPECT_EQ(seen[3].path, "main.Unhandled Exception Occured");
  EXPECT_TRUE(seen[3].properties.empty());
}

}  // namespace
}  // namespace glidewell
