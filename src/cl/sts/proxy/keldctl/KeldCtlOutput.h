// How keldctl prints: aligned tables for people, JSON for scripts, sizes
// people can read.
#ifndef KELD_CLIENT_KELDCTLOUTPUT_H
#define KELD_CLIENT_KELDCTLOUTPUT_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace keldctl {

// Keys stay in the order written, for people and for diffs of the output.
using json = nlohmann::ordered_json;

// Columns padded to their widest cell, two blanks apart; columns named in
// rightAligned (numbers) are aligned right.
class Table {
public:
    explicit Table(std::vector<std::string> headers, std::vector<bool> rightAligned = {});
    void add(std::vector<std::string> row);
    bool empty() const { return m_rows.empty(); }
    void print() const;   // to standard output

private:
    std::vector<std::string> m_headers;
    std::vector<bool> m_right;
    std::vector<std::vector<std::string>> m_rows;
};

// A fixed character field of a storage record as text, never read past
// its end.
template <size_t N>
std::string fieldText(const char (&field)[N])
{
    return std::string(field, strnlen(field, N));
}

// "1.5 GiB", "812 B"
std::string humanBytes(std::uint64_t bytes);
// "3:07", "1:02:03"
std::string humanDuration(double seconds);
// Key and value lines, keys aligned.
void printFields(const std::vector<std::pair<std::string, std::string>>& fields);
void printJson(const json& value);   // indented, to standard output

} // namespace keldctl

#endif
