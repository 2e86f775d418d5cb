// platform/base/command_line.h - from one command line to the words that a program is started with.
#ifndef ZVX_PLATFORM_BASE_COMMAND_LINE_H
#define ZVX_PLATFORM_BASE_COMMAND_LINE_H

namespace os {

// The words of `line`, with a null behind the last, in one block that the caller frees; null without memory. The first
// word is the program: it ends at the next quote where it begins with one, else at a blank, and knows no escapes. In
// the others a quote opens and closes a part in which blanks count for nothing; a backslash means itself, except
// before a quote, where two stand for one and an odd one makes the quote an ordinary character; two quotes inside a
// quoted part are one ordinary quote. An empty line has no words.
char **SplitCommandLine(const char *line);

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_COMMAND_LINE_H
