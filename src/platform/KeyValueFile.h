// The one reader of our own "name = value" text files (the master
// configuration, the remote plug-in's settings, a disk server's
// configuration, the known-servers list), over the inih library.  Each
// caller judges the lines it gets; this unit only cuts the text into them,
// so every file shares the same notion of a comment, a blank line and a
// line number.
//
// The syntax, the same for every file:
//   - a line whose first non-blank character is '#' is a comment, and so is
//     the rest of any line from a '#' on when the syntax asks for it;
//   - blank lines are skipped; blanks around names and values are dropped;
//   - a line splits at its first '=' into name and value; a line without
//     one comes whole, without a value;
//   - there are no sections: a line starting with '[' comes whole, without
//     a value, like any other line the caller cannot use;
//   - a line never continues on the next one, whatever it starts with;
//   - a line is at most kMaxKeyValueLine bytes long.
#ifndef KELD_PLATFORM_KEYVALUEFILE_H
#define KELD_PLATFORM_KEYVALUEFILE_H

#include <cstddef>
#include <string>
#include <vector>

struct KeyValueLine {
    int number = 0;          // from 1
    std::string text;        // the whole line, its comment and outer blanks gone
    std::string name;        // before the separator; the whole text when there is none
    std::string value;
    bool hasValue = false;   // the line holds '='
};

struct KeyValueSyntax {
    // '#' starts a comment anywhere on a line, not only at its start.
    bool commentAnywhere = false;
};

const std::size_t kMaxKeyValueLine = 64 * 1024;

// Every line of text that is not blank or a comment, in order.  False when
// a line is longer than kMaxKeyValueLine; error then says which one
// ("line N is longer than 65536 bytes") and lines holds those before it.
bool readKeyValueText(const std::string& text, const KeyValueSyntax& syntax, std::vector<KeyValueLine>& lines,
                      std::string& error);

#endif
