#include "KeyValueFile.h"

#include <ini.h>

#include <algorithm>
#include <cstring>

namespace {

const char* const kBlanks = " \t\r\n\v\f";

std::string trimmed(const std::string& s)
{
    const size_t first = s.find_first_not_of(kBlanks);
    if (first == std::string::npos) return "";
    return s.substr(first, s.find_last_not_of(kBlanks) - first + 1);
}

// inih's switches are process-wide and shared by every module that carries
// this unit (the service and the plug-ins it loads).  Each sets the same
// values, and only those that differ, so that a second module never writes
// them while the first is reading a file.
void configureInih()
{
    static const bool configured = [] {
        // One line never continues on the next, whatever it starts with.
        if (ini_allow_multiline) ini_allow_multiline = false;
        // A leading byte-order mark stays part of the first name, as before.
        if (ini_allow_bom) ini_allow_bom = false;
        // Only '#' starts a comment; where it may stand is this unit's choice.
        // inih keeps the pointer after this module is gone (a plug-in is
        // unloaded and loaded again), so the text is on the heap, for good.
        if (std::strcmp(ini_start_comment_prefixes, "#") != 0) ini_start_comment_prefixes = strdup("#");
        if (ini_allow_inline_comments) ini_allow_inline_comments = false;
        // A line without a separator reaches the caller, who judges it.
        if (!ini_allow_no_value) ini_allow_no_value = true;
        if (ini_stop_on_first_error) ini_stop_on_first_error = false;
        // One buffer holds the longest line we accept; longer ones are
        // refused by nextLine before inih could split them.
        const int buffer = static_cast<int>(kMaxKeyValueLine) + 3;
        if (ini_use_stack) ini_use_stack = false;
        if (ini_allow_realloc) ini_allow_realloc = false;
        if (ini_initial_alloc != buffer) ini_initial_alloc = buffer;
        if (ini_max_line != buffer) ini_max_line = buffer;
        return true;
    }();
    (void)configured;
}

// One reading: the text, where inih is in it, and what was found.
struct Reading {
    Reading(const std::string& t, const KeyValueSyntax& s, std::vector<KeyValueLine>& l) : text(t), syntax(s), lines(l) {}
    const std::string& text;
    const KeyValueSyntax& syntax;
    std::vector<KeyValueLine>& lines;
    size_t next = 0;        // start of the line inih reads next
    int number = 0;         // of the line inih is reading
    std::string current;    // that line, comment and outer blanks gone
    std::string error;
};

// Reports a line inih does not see.
void addWholeLine(Reading& r)
{
    KeyValueLine line;
    line.number = r.number;
    line.text = line.name = r.current;
    r.lines.push_back(line);
}

// inih's fgets-like source: one whole line of the text per call.
char* nextLine(char* buffer, int size, void* stream)
{
    Reading& r = *static_cast<Reading*>(stream);
    if (r.next >= r.text.size() || !r.error.empty()) return nullptr;
    size_t end = r.text.find('\n', r.next);
    if (end == std::string::npos) end = r.text.size();
    std::string line = r.text.substr(r.next, end - r.next);
    r.next = end + 1;
    ++r.number;
    if (line.size() > kMaxKeyValueLine || line.size() + 2 > static_cast<size_t>(size)) {
        r.error = "line " + std::to_string(r.number) + " is longer than " + std::to_string(kMaxKeyValueLine) + " bytes";
        return nullptr;
    }
    if (r.syntax.commentAnywhere) line.erase(std::min(line.find('#'), line.size()));
    r.current = trimmed(line);
    // Our files have no sections: inih would take such a line as one.
    if (!r.current.empty() && r.current[0] == '[') {
        addWholeLine(r);
        line.clear();
    }
    std::memcpy(buffer, line.data(), line.size());
    buffer[line.size()] = '\n';
    buffer[line.size() + 1] = '\0';
    return buffer;
}

int onLine(void* user, const char* /*section*/, const char* name, const char* value)
{
    Reading& r = *static_cast<Reading*>(user);
    KeyValueLine line;
    line.number = r.number;
    line.text = r.current;
    line.name = name;
    line.hasValue = value != nullptr;
    if (line.hasValue) line.value = value;
    // inih also splits at ':', which our files never did: "HOST:PORT" or
    // "NAME: value" stays one name unless an '=' follows.
    const size_t equals = r.current.find('=');
    if (line.hasValue && r.current.find(':') < equals) {
        line.hasValue = equals != std::string::npos;
        line.name = line.hasValue ? trimmed(r.current.substr(0, equals)) : r.current;
        line.value = line.hasValue ? trimmed(r.current.substr(equals + 1)) : "";
    }
    r.lines.push_back(line);
    return 1;
}

} // namespace

bool readKeyValueText(const std::string& text, const KeyValueSyntax& syntax, std::vector<KeyValueLine>& lines,
                      std::string& error)
{
    configureInih();
    Reading reading(text, syntax, lines);
    const int rc = ini_parse_stream(nextLine, &reading, onLine, &reading);
    if (!reading.error.empty()) {
        error = reading.error;
        return false;
    }
    if (rc != 0) {
        // Not expected with the switches above; said all the same.
        error = rc > 0 ? "line " + std::to_string(rc) + " cannot be read" : "out of memory";
        return false;
    }
    return true;
}
