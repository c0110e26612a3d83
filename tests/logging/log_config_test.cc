// Reading logconfig.xml: the schema with its odd rules, settings keys as
// element paths, file names, and configuration files that are bad in every
// way a file can be bad.
#include "log_test_util.h"
#include "logging/file_appender.h"
#include "logging/log_config.h"
#include "logging/priority_filter.h"
#include "logging/std_appender.h"
#include "logging/xml_nesting.h"

namespace glidewell {
namespace {

using testing_log::makeTime;
using testing_log::RecordingAppender;

class LogConfigTest : public testing_log::LogTest {
 protected:
  LogConfigTest() : scoped_(&env_) { env_.setLocalTime(makeTime(9, 45, 2, 17)); }

  bool load(const std::string& xml) { return testing_log::loadText(manager(), dir_, xml); }
  RecordingAppender* recorder(size_t i) { return dynamic_cast<RecordingAppender*>(manager()->appenders().at(i)); }
  std::string path(const std::string& name) { return dir_.file(name); }

  testing_log::TestEnv env_;
  ScopedEnv scoped_;
  TempDir dir_;
};

TEST_F(LogConfigTest, WhichObjectsAreMadeAndInWhatOrder) {
  ASSERT_TRUE(load(
      "<whatever><appender name=\"FileAppender\"><settings><filename value=\"" + path("a.log") + "\"/></settings>"
      "</appender><appender name=\"StdAppender\"/>"
      // Unknown or nameless objects are left out; names are case sensitive.
      "<appender name=\"Bogus\"><layout name=\"SimpleLayout\"/></appender><appender><settings/></appender>"
      "<appender name=\"recording\"/>"
      "<appender name=\"Recording\"><filter name=\"nope\"/><layout name=\"FancyLayout\"/></appender>"
      // An appender without settings is never configured.
      "<appender name=\"Recording\"><settings/><filter/><layout/></appender></whatever>"));
  const auto& appenders = manager()->appenders();
  ASSERT_EQ(appenders.size(), 4u);
  EXPECT_NE(dynamic_cast<FileAppender*>(appenders[0]), nullptr);
  EXPECT_TRUE(std::filesystem::exists(path("a.log")));
  EXPECT_NE(dynamic_cast<StdAppender*>(appenders[1]), nullptr);
  for (size_t i : {2, 3}) {
    EXPECT_EQ(recorder(i)->filter(), nullptr);
    EXPECT_EQ(recorder(i)->layout(), nullptr);
    EXPECT_EQ(recorder(i)->configureCalls, 0);
  }
  EXPECT_TRUE(manager()->genericObjects().empty());
  EXPECT_EQ(&configuredAppenders(), &manager()->appenders());

  // A root that is an appender is read after its children, and its top-level
  // siblings too.
  ASSERT_TRUE(load("<appender name=\"Recording\"><settings><which value=\"root\"/></settings>"
                   "<appender name=\"Recording\"><settings><which value=\"child\"/></settings></appender>"
                   "<deeper><appender name=\"Recording\"/></deeper></appender>"
                   "<!-- between --><appender name=\"Recording\"><settings><which value=\"after\"/></settings>"
                   "</appender>"));
  ASSERT_EQ(manager()->appenders().size(), 7u);
  EXPECT_EQ(recorder(4)->settings().at("which"), "child");
  EXPECT_EQ(recorder(5)->settings().at("which"), "root");
  EXPECT_EQ(recorder(6)->settings().at("which"), "after");
}

TEST_F(LogConfigTest, FiltersNestToAChainAndOnlyTheFirstSiblingCounts) {
  ASSERT_TRUE(load("<r><appender name=\"Recording\">"
                   "<filter name=\"priority\"><settings><priority value=\"DBG\"/></settings>"
                   "  <filter name=\"priority\"><settings><priority value=\"WARNING\"/></settings></filter>"
                   "</filter>"
                   "<filter name=\"priority\"><settings><priority value=\"ERR\"/></settings></filter>"
                   "</appender></r>"));
  EXPECT_EQ(manager()->genericObjects().size(), 2u);
  Logger log("chain");
  for (LogPriority p : {200, 800, 700, 205}) log.log(p) << "p" << p;
  auto seen = recorder(0)->seen();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].priority, 700);
  EXPECT_EQ(seen[1].priority, 205);
}

TEST_F(LogConfigTest, SettingKeysAreElementPaths) {
  std::pair<const char*, LogSettings> cases[] = {
      {"<settings><includeTime value=\"true\"><timeformat value=\"%ms\"/></includeTime>"
       "<group><inner value=\"x\"><leaf value=\"y\"/></inner></group>"
       // A "settings" element inside is a container again: no path for its
       // children, and its own siblings are not visited.
       "<settings value=\"s\"><nested value=\"n\"/></settings><notReached value=\"z\"/></settings>",
       {{"includeTime", "true"}, {"includeTime/timeformat", "%ms"}, {"group/inner", "x"}, {"group/inner/leaf", "y"},
        {"settings", "s"}, {"nested", "n"}}},
      // Elements before the settings add keys under their path, elements after nothing.
      {"<layout name=\"SimpleLayout\"><settings><includeTime value=\"true\"/></settings></layout>"
       "<settings><a value=\"1\"/></settings><after value=\"2\"/>",
       {{"a", "1"}, {"layout/settings/includeTime", "true"}}},
      // Of two siblings with one key the first stands, of cousins the last.
      {"<settings><k value=\"first\"/><k value=\"second\"/><p><c value=\"early\"/></p><p><c value=\"late\"/></p>"
       "</settings>",
       {{"k", "first"}, {"p/c", "late"}}},
      {"<settings><!-- c --><a value=\"1\"/></settings>", {{"a", "1"}}},
  };
  for (const auto& c : cases) {
    LogManager::release();
    ASSERT_TRUE(load(std::string("<r><appender name=\"Recording\">") + c.first + "</appender></r>")) << c.first;
    EXPECT_EQ(recorder(0)->settings(), c.second) << c.first;
  }
  // A comment opening a filter's settings leaves the filter its defaults; in a
  // layout's it does not. A time format counts only nested in includeTime.
  LogManager::release();
  ASSERT_TRUE(load("<r><appender name=\"Recording\">"
                   "<filter name=\"priority\"><settings><!-- c --><priority value=\"ERR\"/></settings></filter>"
                   "<layout name=\"SimpleLayout\"><settings><!-- c --><includeTime value=\"true\"/>"
                   "<timeformat value=\"%ms\"/></settings></layout></appender></r>"));
  auto* f = dynamic_cast<PriorityFilter*>(recorder(0)->filter());
  EXPECT_TRUE(f->settings().empty());
  EXPECT_EQ(f->priority(), 200);
  EXPECT_EQ(recorder(0)->layout()->settings().at("includeTime/timeformat"), "%X");
  EXPECT_EQ(recorder(0)->layout()->settings().at("timeformat"), "%ms");
}

TEST_F(LogConfigTest, TimeStampAndPostfixShapeTheFileName) {
  ASSERT_TRUE(load("<r><appender name=\"FileAppender\"><settings><filename value=\"" + path("log.txt") +
                   "\"/><addTimeStampToFilename value=\"1\"/><postfix value=\"_svc\"/></settings></appender>"
                   "<appender name=\"FileAppender\"><settings><filename value=\"" + path("plain.txt") +
                   "\"/><addTimeStampToFilename value=\"yes\"/></settings></appender></r>"));
  auto* stamped = dynamic_cast<FileAppender*>(manager()->appenders()[0]);
  EXPECT_EQ(stamped->fileName(), path("log_20240131_094502_svc.txt"));
  EXPECT_EQ(stamped->settings().at("filename"), path("log_20240131_094502.txt"));
  EXPECT_TRUE(std::filesystem::exists(stamped->fileName()));
  EXPECT_EQ(dynamic_cast<FileAppender*>(manager()->appenders()[1])->fileName(), path("plain.txt"));

  EXPECT_EQ(stampedFileName("logs.d\\run", makeTime(9, 45, 2, 17)), "logs_20240131_094502.d\\run");
  EXPECT_EQ(stampedFileName("run", makeTime(0, 0, 0, 0, 987, 2, 3)), "run_09870203_000000");
  // No stamp without a file name; the request still counts for a later one.
  RecordingAppender a;
  mergeSettings(&a, {{"addTimeStampToFilename", "true"}, {"filename", ""}}, makeTime(1, 2, 3, 4));
  EXPECT_EQ(a.settings().at("filename"), "");
  mergeSettings(&a, {{"filename", "x.log"}}, makeTime(1, 2, 3, 4));
  EXPECT_EQ(a.settings().at("filename"), "x_20240131_010203.log");
}

// --- Bad files: every one gives false or a harmless configuration, never a crash.

TEST_F(LogConfigTest, MissingUnreadableAndUnparsableFilesGiveFalseAndNoObjects) {
  EXPECT_FALSE(manager()->loadConfig(widen(path("missing.xml"))));
  EXPECT_FALSE(manager()->loadConfig(widen(dir_.native())));  // a directory
  for (const char* text : {"", "not xml at all", "<r><appender name=\"Recording\"><settings><a val",
                           "<r><appender name=\"Recording\"/>", "<r><appender name=\"Recording\"/></q>",
                           "<r a=\"1\" a=\"2\"/>", "\xEF\xBB\xBF", "   \n\t"}) {
    EXPECT_FALSE(load(text)) << text;
  }
  env_.failReads = true;
  EXPECT_FALSE(load("<r><appender name=\"Recording\"/></r>"));
  env_.failReads = false;
  env_.failOpen = true;
  EXPECT_FALSE(load("<r><appender name=\"Recording\"/></r>"));
  env_.failOpen = false;
  EXPECT_TRUE(manager()->appenders().empty());
  std::filesystem::resize_file(path("logconfig.xml"), kMaxLogConfigSize + 1);  // sparse: costs no disk
  EXPECT_FALSE(manager()->loadConfig(widen(path("logconfig.xml"))));

  // Parsed, but without a root element: nothing to read. A byte order mark and
  // trailing junk are accepted.
  EXPECT_TRUE(load("<!-- only a comment -->"));
  EXPECT_TRUE(load("\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<r><appender name=\"Recording\"/></r>"));
  EXPECT_TRUE(load("<r><appender name=\"Recording\"/></r> trailing text"));
  EXPECT_EQ(manager()->appenders().size(), 2u);
}

TEST_F(LogConfigTest, DeepNestingIsRefusedBeforeTheParserRecursesAndHugeFilesStillLoad) {
  std::string deep;
  for (int i = 0; i < 200000; ++i) deep += "<a>";
  EXPECT_FALSE(load(deep));
  for (int i = 0; i < 200000; ++i) deep += "</a>";
  EXPECT_FALSE(load(deep));

  // Nesting that a configuration could plausibly have, an enormous value and
  // many elements still load.
  std::string xml = "<r><appender name=\"Recording\"><settings>";
  for (int i = 0; i < 150; ++i) xml += "<n>";
  xml += "<v value=\"deep\"/>";
  for (int i = 0; i < 150; ++i) xml += "</n>";
  xml += "<big value=\"" + std::string(8 << 20, 'v') + "\"/>";
  for (int i = 0; i < 20000; ++i) xml += "<s" + std::to_string(i) + " value=\"" + std::to_string(i) + "\"/>";
  ASSERT_TRUE(load(xml + "</settings></appender></r>"));
  EXPECT_EQ(recorder(0)->settings().at("big").size(), 8u << 20);
  EXPECT_EQ(recorder(0)->settings().size(), 20002u);
}

TEST(XmlNestingTest, CountsAsTheParserNests) {
  std::pair<const char*, size_t> cases[] = {
      {"", 0}, {"<a/>", 0}, {"<a><b><c/></b></a>", 2}, {"<a x=\"/>\"><b y='</a>'>t</b></a>", 2},
      {"<a><!-- <b><c> --><![CDATA[<d><e>]]><?xml version='>'?><b/></a>", 1}, {"<a><!--><b><c>--></a>", 1},
      // An entity runs to its ';', through a quote: the parser sees <r> opened here.
      {"<r v=\"&#x\"/>x;\"><a></a></r>", 2},
      // Where the parser stops with an error, so does the count.
      {"<a></b><c><d><e>", 1}, {"text<a><b>", 0}};
  for (const auto& c : cases) EXPECT_EQ(xmlNestingDepth(c.first, 10), c.second) << c.first;
  EXPECT_EQ(xmlNestingDepth("<a><b><c><d>", 2), 3u);
}

}  // namespace
}  // namespace glidewell
