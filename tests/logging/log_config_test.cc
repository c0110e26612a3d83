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

using testing_log::fileExists;
using testing_log::LogTest;
using testing_log::makeTime;
using testing_log::readFile;
using testing_log::RecordingAppender;
using testing_log::ScopedEnv;
using testing_log::TempDir;
using testing_log::TestEnv;

class LogConfigTest : public LogTest {
 protected:
  LogConfigTest() : scoped_(&env_) { env_.fixedTime = makeTime(9, 45, 2, 17); }

  bool load(const std::string& xml) { return testing_log::loadText(manager(), dir_, xml); }
  RecordingAppender* recorder(size_t i) { return dynamic_cast<RecordingAppender*>(manager()->appenders().at(i)); }
  std::string path(const std::string& name) { return dir_.file(name); }

  TestEnv env_;
  ScopedEnv scoped_;
  TempDir dir_;
};

TEST_F(LogConfigTest, TheRootMayHaveAnyNameAndAppendersKeepTheirOrder) {
  ASSERT_TRUE(load("<whatever><appender name=\"FileAppender\"><settings><filename value=\"" + path("a.log") +
                   "\"/></settings></appender><appender name=\"StdAppender\"/></whatever>"));
  const auto& appenders = manager()->appenders();
  ASSERT_EQ(appenders.size(), 2u);
  EXPECT_NE(dynamic_cast<FileAppender*>(appenders[0]), nullptr);
  EXPECT_NE(dynamic_cast<StdAppender*>(appenders[1]), nullptr);
  EXPECT_EQ(&configuredAppenders(), &manager()->appenders());
  EXPECT_TRUE(fileExists(path("a.log")));
}

TEST_F(LogConfigTest, AnAppenderWithoutSettingsIsNeverConfigured) {
  ASSERT_TRUE(load("<r><appender name=\"Recording\"><settings/></appender>"
                   "<appender name=\"FileAppender\"><settings><!-- nothing --></settings></appender>"
                   "<appender name=\"Recording\"><settings><x value=\"1\"/></settings></appender></r>"));
  EXPECT_EQ(recorder(0)->configureCalls, 0);
  EXPECT_TRUE(recorder(0)->settings().empty());
  auto* file = dynamic_cast<FileAppender*>(manager()->appenders()[1]);
  EXPECT_FALSE(file->isOpen());
  EXPECT_EQ(file->settings().at("postfix"), "");  // preset by the factory, nothing more
  EXPECT_EQ(recorder(2)->configureCalls, 1);
}

TEST_F(LogConfigTest, UnknownOrNamelessObjectsAreLeftOut) {
  ASSERT_TRUE(load(
      "<r>"
      "<appender name=\"Bogus\"><layout name=\"SimpleLayout\"/></appender>"
      "<appender><settings><x value=\"1\"/></settings></appender>"
      "<appender name=\"recording\"/>"
      "<appender name=\"Recording\"><filter name=\"nope\"><filter name=\"priority\"/></filter>"
      "<layout name=\"FancyLayout\"/></appender>"
      "<appender name=\"Recording\"><filter/><layout/></appender>"
      "</r>"));
  ASSERT_EQ(manager()->appenders().size(), 2u);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(recorder(i)->filter(), nullptr);
    EXPECT_EQ(recorder(i)->layout(), nullptr);
  }
  EXPECT_TRUE(manager()->genericObjects().empty());
}

TEST_F(LogConfigTest, ARootNamedAppenderIsReadAfterItsChildrenAndTopLevelSiblingsToo) {
  ASSERT_TRUE(load("<appender name=\"Recording\"><settings><which value=\"root\"/></settings>"
                   "<appender name=\"Recording\"><settings><which value=\"child\"/></settings></appender>"
                   "<deeper><appender name=\"Recording\"/></deeper></appender>"
                   "<!-- between --><appender name=\"Recording\"><settings><which value=\"after\"/></settings>"
                   "</appender>"));
  ASSERT_EQ(manager()->appenders().size(), 3u);
  EXPECT_EQ(recorder(0)->settings().at("which"), "child");
  EXPECT_EQ(recorder(1)->settings().at("which"), "root");
  EXPECT_EQ(recorder(2)->settings().at("which"), "after");
}

TEST_F(LogConfigTest, FiltersNestToAChainAndOnlyTheFirstSiblingCounts) {
  ASSERT_TRUE(load("<r><appender name=\"Recording\">"
                   "<filter name=\"priority\"><settings><priority value=\"DBG\"/></settings>"
                   "  <filter name=\"priority\"><settings><priority value=\"WARNING\"/></settings></filter>"
                   "</filter>"
                   "<filter name=\"priority\"><settings><priority value=\"ERR\"/></settings></filter>"
                   "</appender></r>"));
  auto* first = dynamic_cast<PriorityFilter*>(recorder(0)->filter());
  ASSERT_NE(first, nullptr);
  auto* second = dynamic_cast<PriorityFilter*>(first->next());
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(first->priority(), 200);
  EXPECT_EQ(second->priority(), 800);
  EXPECT_EQ(second->next(), nullptr);
  EXPECT_EQ(manager()->genericObjects().size(), 2u);

  Logger log("chain");
  for (LogPriority p : {200, 800, 700, 205}) log.log(p) << "p" << p;
  auto seen = recorder(0)->seen();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].priority, 700);
  EXPECT_EQ(seen[1].priority, 205);
}

TEST_F(LogConfigTest, ACommentOpeningAFiltersSettingsKeepsItsDefaults) {
  ASSERT_TRUE(load("<r><appender name=\"Recording\"><settings><!-- c --><a value=\"1\"/></settings>"
                   "<filter name=\"priority\"><settings><!-- c --><priority value=\"ERR\"/></settings></filter>"
                   "<layout name=\"SimpleLayout\"><settings><!-- c --><includePriorities value=\"true\"/>"
                   "</settings></layout></appender></r>"));
  EXPECT_EQ(recorder(0)->settings().at("a"), "1");
  auto* f = dynamic_cast<PriorityFilter*>(recorder(0)->filter());
  EXPECT_TRUE(f->settings().empty());
  EXPECT_EQ(f->priority(), 200);
  EXPECT_EQ(recorder(0)->layout()->settings().at("includePriorities"), "true");
}

TEST_F(LogConfigTest, SettingKeysAreElementPaths) {
  ASSERT_TRUE(load("<r><appender name=\"Recording\"><settings>"
                   "<includeTime value=\"true\"><timeformat value=\"%ms\"/></includeTime>"
                   "<group><inner value=\"x\"><leaf value=\"y\"/></inner></group>"
                   "<settings value=\"s\"><nested value=\"n\"/></settings>"
                   "<notReached value=\"z\"/>"
                   "</settings></appender></r>"));
  LogSettings expected{{"includeTime", "true"}, {"includeTime/timeformat", "%ms"}, {"group/inner", "x"},
                       {"group/inner/leaf", "y"}, {"settings", "s"}, {"nested", "n"}};
  // A "settings" element inside the settings is a container again: no path
  // for its children, and its own siblings are not visited.
  EXPECT_EQ(recorder(0)->settings(), expected);
}

TEST_F(LogConfigTest, TimeFormatCountsOnlyNestedInIncludeTime) {
  ASSERT_TRUE(load("<r><appender name=\"Recording\"><layout name=\"SimpleLayout\"><settings>"
                   "<includeTime value=\"true\"/><timeformat value=\"%ms\"/></settings></layout></appender></r>"));
  Layout* layout = recorder(0)->layout();
  EXPECT_EQ(layout->settings().at("includeTime/timeformat"), "%X");
  EXPECT_EQ(layout->settings().at("timeformat"), "%ms");
}

TEST_F(LogConfigTest, ElementsBeforeSettingsAddKeysUnderTheirPathAndElementsAfterNothing) {
  ASSERT_TRUE(load("<r><appender name=\"Recording\">"
                   "<layout name=\"SimpleLayout\"><settings><includeTime value=\"true\"/></settings></layout>"
                   "<settings><a value=\"1\"/></settings>"
                   "<after value=\"2\"/></appender></r>"));
  LogSettings expected{{"a", "1"}, {"layout/settings/includeTime", "true"}};
  EXPECT_EQ(recorder(0)->settings(), expected);
  EXPECT_NE(recorder(0)->layout(), nullptr);
}

TEST_F(LogConfigTest, OfTwoSiblingsWithOneKeyTheFirstStandsOfCousinsTheLast) {
  ASSERT_TRUE(load("<r><appender name=\"Recording\"><settings>"
                   "<k value=\"first\"/><k value=\"second\"/>"
                   "<p><c value=\"early\"/></p><p><c value=\"late\"/></p>"
                   "</settings></appender></r>"));
  EXPECT_EQ(recorder(0)->settings().at("k"), "first");
  EXPECT_EQ(recorder(0)->settings().at("p/c"), "late");
}

TEST_F(LogConfigTest, TimeStampAndPostfixShapeTheFileName) {
  ASSERT_TRUE(load("<r><appender name=\"FileAppender\"><settings><filename value=\"" + path("log.txt") +
                   "\"/><addTimeStampToFilename value=\"1\"/><postfix value=\"_svc\"/></settings></appender>"
                   "<appender name=\"FileAppender\"><settings><filename value=\"" + path("plain.txt") +
                   "\"/><addTimeStampToFilename value=\"yes\"/></settings></appender></r>"));
  auto* stamped = dynamic_cast<FileAppender*>(manager()->appenders()[0]);
  EXPECT_EQ(stamped->fileName(), path("log_20240131_094502_svc.txt"));
  EXPECT_EQ(stamped->settings().at("filename"), path("log_20240131_094502.txt"));
  EXPECT_TRUE(fileExists(stamped->fileName()));
  EXPECT_EQ(dynamic_cast<FileAppender*>(manager()->appenders()[1])->fileName(), path("plain.txt"));
}

TEST(StampedFileNameTest, TheStampGoesBeforeTheLastDot) {
  SYSTEMTIME t = makeTime(9, 45, 2, 17, 2024, 1, 31);
  EXPECT_EQ(stampedFileName("log.txt", t), "log_20240131_094502.txt");
  EXPECT_EQ(stampedFileName("logs.d\\run", t), "logs_20240131_094502.d\\run");
  EXPECT_EQ(stampedFileName("run", makeTime(0, 0, 0, 0, 987, 2, 3)), "run_09870203_000000");
}

TEST(MergeSettingsTest, NoStampWithoutAFileName) {
  RecordingAppender a;
  mergeSettings(&a, {{"addTimeStampToFilename", "true"}, {"filename", ""}}, makeTime(1, 2, 3, 4));
  EXPECT_EQ(a.settings().at("filename"), "");
  mergeSettings(&a, {{"filename", "x.log"}}, makeTime(1, 2, 3, 4));  // the earlier request still counts
  EXPECT_EQ(a.settings().at("filename"), "x_20240131_010203.log");
}

// --- Bad files: every one gives false or a harmless configuration, never a crash.

TEST_F(LogConfigTest, MissingEmptyAndUnparsableFilesGiveFalseAndNoObjects) {
  EXPECT_FALSE(manager()->loadConfig(widen(path("missing.xml"))));
  EXPECT_FALSE(manager()->loadConfig(widen(dir_.path())));  // a directory
  for (const char* text : {"", "not xml at all", "<r><appender name=\"Recording\"><settings><a val",
                           "<r><appender name=\"Recording\"/>", "<r><appender name=\"Recording\"/></q>",
                           "<r a=\"1\" a=\"2\"/>", "\xEF\xBB\xBF", "   \n\t"}) {
    EXPECT_FALSE(load(text)) << text;
    EXPECT_TRUE(manager()->appenders().empty()) << text;
  }
  // Parsed, but without a root element: nothing to read.
  EXPECT_TRUE(load("<!-- only a comment -->"));
  EXPECT_TRUE(manager()->appenders().empty());
}

TEST_F(LogConfigTest, AByteOrderMarkAndTrailingJunkAreAccepted) {
  EXPECT_TRUE(load("\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<r><appender name=\"Recording\"/></r>"));
  EXPECT_TRUE(load("<r><appender name=\"Recording\"/></r> trailing text"));
  EXPECT_EQ(manager()->appenders().size(), 2u);
}

TEST_F(LogConfigTest, UnreadableFilesGiveFalse) {
  testing_log::writeFile(path("c.xml"), "<r><appender name=\"Recording\"/></r>");
  env_.failReads = true;
  EXPECT_FALSE(manager()->loadConfig(widen(path("c.xml"))));
  env_.failReads = false;
  env_.failOpen = true;
  EXPECT_FALSE(manager()->loadConfig(widen(path("c.xml"))));
  EXPECT_TRUE(manager()->appenders().empty());
}

TEST_F(LogConfigTest, AFileFarTooBigForAConfigurationIsRefusedUnread) {
  std::string name = path("huge.xml");
  testing_log::writeFile(name, "<r/>");
  std::filesystem::resize_file(name, kMaxLogConfigSize + 1);  // sparse: costs no disk
  EXPECT_FALSE(manager()->loadConfig(widen(name)));
}

TEST_F(LogConfigTest, DeepNestingIsRefusedBeforeTheParserRecurses) {
  std::string deep;
  for (int i = 0; i < 200000; ++i) deep += "<a>";
  EXPECT_FALSE(load(deep));
  std::string closed = deep;
  for (int i = 0; i < 200000; ++i) closed += "</a>";
  EXPECT_FALSE(load(closed));

  // Nesting that a configuration could plausibly have still loads.
  std::string fine = "<r><appender name=\"Recording\"><settings>";
  for (int i = 0; i < 150; ++i) fine += "<n>";
  fine += "<v value=\"deep\"/>";
  for (int i = 0; i < 150; ++i) fine += "</n>";
  fine += "</settings></appender></r>";
  ASSERT_TRUE(load(fine));
  EXPECT_EQ(recorder(0)->settings().size(), 1u);
}

TEST_F(LogConfigTest, EnormousValuesAndManyElementsStillLoad) {
  std::string value(8 << 20, 'v');
  std::string xml = "<r><appender name=\"Recording\"><settings><big value=\"" + value + "\"/>";
  for (int i = 0; i < 20000; ++i) xml += "<s" + std::to_string(i) + " value=\"" + std::to_string(i) + "\"/>";
  xml += "</settings></appender></r>";
  ASSERT_TRUE(load(xml));
  EXPECT_EQ(recorder(0)->settings().at("big").size(), value.size());
  EXPECT_EQ(recorder(0)->settings().size(), 20001u);
}

TEST(XmlNestingTest, CountsAsTheParserNests) {
  EXPECT_EQ(xmlNestingDepth("", 10), 0u);
  EXPECT_EQ(xmlNestingDepth("<a/>", 10), 0u);
  EXPECT_EQ(xmlNestingDepth("<a><b><c/></b></a>", 10), 2u);
  EXPECT_EQ(xmlNestingDepth("<a x=\"/>\"><b y='</a>'>t</b></a>", 10), 2u);
  EXPECT_EQ(xmlNestingDepth("<a><!-- <b><c> --><![CDATA[<d><e>]]><?xml version='>'?><b/></a>", 10), 1u);
  EXPECT_EQ(xmlNestingDepth("<a><!--><b><c>--></a>", 10), 1u);
  // An entity runs to its ';', through a quote: the parser sees <r> opened here.
  EXPECT_EQ(xmlNestingDepth("<r v=\"&#x\"/>x;\"><a></a></r>", 10), 2u);
  // Where the parser stops with an error, so does the count.
  EXPECT_EQ(xmlNestingDepth("<a></b><c><d><e>", 10), 1u);
  EXPECT_EQ(xmlNestingDepth("text<a><b>", 10), 0u);
  EXPECT_EQ(xmlNestingDepth("<a><b><c><d>", 2), 3u);
}

}  // namespace
}  // namespace glidewell
