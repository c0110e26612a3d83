// How deeply an XML text nests, as the TinyXML parser would see it.
//
// TinyXML parses nested elements by recursion, one level of the C stack per
// level of nesting, with no limit of its own: a configuration file of a few
// hundred kilobytes of "<a>" would overflow the stack of the thread that
// loads it. loadConfig therefore measures the nesting first with this
// scanner, which follows the parser's own grammar (its element, comment,
// CDATA, declaration and unknown nodes, attribute quoting and character
// entities, in its legacy encoding) without recursion, and refuses texts
// that nest too deeply.
#ifndef GLIDEWELL_LOGGING_XML_NESTING_H_
#define GLIDEWELL_LOGGING_XML_NESTING_H_

#include <cstddef>

namespace glidewell {

// The deepest element nesting the parser reaches on text (NUL-terminated);
// once the depth passes limit the scan stops and limit + 1 is returned.
// Where the parser would stop with an error, the scan stops too.
size_t xmlNestingDepth(const char* text, size_t limit);

}  // namespace glidewell

#endif  // GLIDEWELL_LOGGING_XML_NESTING_H_
