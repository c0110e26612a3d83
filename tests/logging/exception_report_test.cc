// The unhandled-exception report: the trees built from the exception record
// and the x86 context, and the report written through the log.
#include <cstring>

#include "log_test_util.h"
#include "logging/exception_report.h"

namespace glidewell {
namespace {

using testing_log::LogTest;
using testing_log::RecordingAppender;

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

TEST(ExceptionRecordTreeTest, OtherCodesFlagsAndCounts) {
  X86ExceptionRecord r = record(0x80000003u, {0xABCDEF});
  LogProperty tree = exceptionRecordProperty(r);
  EXPECT_EQ(tree.children()[2].value(), "EXCEPTION_BREAKPOINT");
  EXPECT_EQ(render(tree.children()[5]), "ExceptionInformation: 0x00ABCDEF\n Information 0: 0x00abcdef\n");

  X86ExceptionRecord cpp = record(0xE06D7363u, {1, 2, 3});
  for (uint32_t flags : {1u, 2u}) {
    cpp.ExceptionFlags = flags;
    tree = exceptionRecordProperty(cpp);
    EXPECT_EQ(tree.children()[1].value(), "0xe06d7363");
    EXPECT_EQ(tree.children()[2].value(), "Unknown");
    EXPECT_EQ(tree.children()[3].value(), flags == 1 ? "NonContinuable" : "Unknown");
    EXPECT_EQ(tree.children()[5].children().size(), 3u);
  }
  // A count beyond fifteen is reported but not followed.
  r.NumberParameters = 1000;
  tree = exceptionRecordProperty(r);
  EXPECT_EQ(tree.children()[4].value(), "1000");
  EXPECT_EQ(tree.children()[5].children().size(), 15u);
}

TEST(ExceptionRecordTreeTest, ANestedRecordIsTheLastChildAndALoopIsCut) {
  X86ExceptionRecord inner = record(0xC0000005u, {1, 0x20});
  X86ExceptionRecord outer = record(0xC0000025u, {});
  outer.ExceptionRecord = &inner;
  LogProperty tree = exceptionRecordProperty(outer);
  ASSERT_EQ(tree.children().size(), 7u);
  EXPECT_EQ(tree.children()[2].value(), "EXCEPTION_NONCONTINUABLE_EXCEPT");
  EXPECT_EQ(render(tree.children()[6]), render(exceptionRecordProperty(inner)));

  inner.ExceptionRecord = &inner;
  int depth = 0;
  tree = exceptionRecordProperty(inner);
  for (const LogProperty* p = &tree; p->children().size() == 7; p = &p->children()[6]) ++depth;
  EXPECT_EQ(depth, 16);
}

X86Context fullContext() {
  X86Context x;
  std::memset(&x, 0, sizeof(x));
  x.ContextFlags = 0x1003F;
  x.Eip = 0xFFFFFFFFu;
  x.FloatSave.ControlWord = 0x27F;
  x.FloatSave.RegisterArea[0] = 0xAB;
  x.ExtendedRegisters[511] = 0xFF;
  return x;
}

std::vector<std::string> childNames(const LogProperty& p) {
  std::vector<std::string> names;
  for (const LogProperty& c : p.children()) names.push_back(c.name());
  return names;
}

TEST(ContextTreeTest, TheGroupsWhoseBitsAreAllSetInTheirOrderAndForms) {
  X86Context x = fullContext();
  LogProperty tree = contextProperty(x);
  EXPECT_EQ(tree.value(), hexAddress(&x));
  EXPECT_EQ(childNames(tree), (std::vector<std::string>{"Ebp", "Eip", "SegCs", "EFlags", "Esp", "SegSs", "Edi", "Esi",
                                                        "Ebx", "Edx", "Ecx", "Eax", "FloatingSaveArea", "SegDs",
                                                        "SegEs", "SegFs", "SegGs", "Dr0", "Dr1", "Dr2", "Dr3", "Dr6",
                                                        "Dr7", "ExtendedRegisters"}));
  EXPECT_EQ(tree.children()[1].value(), "4294967295");
  const LogProperty& fp = tree.children()[12];
  EXPECT_EQ(fp.value(), hexAddress(&x.FloatSave));
  EXPECT_EQ(fp.children()[0].value(), "0x0000027f");
  EXPECT_EQ(fp.children()[7].value().substr(0, 6), " ab 00");
  EXPECT_EQ(fp.children()[7].value().size(), 80u * 3);
  const std::string& ext = tree.children()[23].value();
  EXPECT_EQ(ext.size(), 512u * 3);
  EXPECT_EQ(ext.substr(ext.size() - 3), " ff");

  x.ContextFlags = 0x10003;
  EXPECT_EQ(contextProperty(x).children().size(), 12u);
  x.ContextFlags = 0x3F;  // without the x86 family bit no group is complete
  EXPECT_TRUE(contextProperty(x).children().empty());
  x.ContextFlags = 0x10020;
  EXPECT_EQ(childNames(contextProperty(x)), std::vector<std::string>{"ExtendedRegisters"});
}

class ReportTest : public LogTest {};

TEST_F(ReportTest, TheReportIsTwoMessagesUnderTheFailingThreadsLogger) {
  RecordingAppender* out = addRecorder();
  X86ExceptionRecord r = record(0xC0000005u, {0, 0x10});
  X86Context x = fullContext();
  // Before initialisation nothing is logged; the result is 1 all the same.
  EXPECT_EQ(reportUnhandledException(&r, &x), 1);
  EXPECT_TRUE(out->seen().empty());
  TempDir dir;
  initLogging(dir.path());  // no configuration file
  {
    Logger scope("processFile");
    EXPECT_EQ(reportUnhandledException(&r, &x), 1);
    EXPECT_EQ(currentLogger(), &scope);
  }
  EXPECT_EQ(reportUnhandledException(nullptr, nullptr), 1);
  auto seen = out->seen();
  deinitLogging();

  ASSERT_EQ(seen.size(), 5u);
  EXPECT_EQ(seen[0].message, "Log started");
  seen.erase(seen.begin());
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
