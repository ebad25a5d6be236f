#include "KeldCtlOutput.h"

#include <algorithm>
#include <cstdio>
#include <iostream>

namespace keldctl {

Table::Table(std::vector<std::string> headers, std::vector<bool> rightAligned)
    : m_headers(std::move(headers)), m_right(std::move(rightAligned))
{
    m_right.resize(m_headers.size(), false);
}

void Table::add(std::vector<std::string> row)
{
    row.resize(m_headers.size());
    m_rows.push_back(std::move(row));
}

void Table::print() const
{
    std::vector<size_t> width(m_headers.size());
    for (size_t c = 0; c < m_headers.size(); ++c) {
        width[c] = m_headers[c].size();
        for (const auto& row : m_rows) width[c] = std::max(width[c], row[c].size());
    }
    auto line = [&](const std::vector<std::string>& cells) {
        std::string out;
        for (size_t c = 0; c < cells.size(); ++c) {
            const std::string pad(width[c] - cells[c].size(), ' ');
            const bool last = c + 1 == cells.size();
            out += m_right[c] ? pad + cells[c] : cells[c] + (last ? "" : pad);
            if (!last) out += "  ";
        }
        std::cout << out << '\n';
    };
    line(m_headers);
    for (const auto& row : m_rows) line(row);
}

std::string humanBytes(std::uint64_t bytes)
{
    static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) return std::to_string(bytes) + " B";
    double value = static_cast<double>(bytes);
    int unit = 0;
    while (value >= 1024 && unit < 6) {
        value /= 1024;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof(text), value < 10 ? "%.1f %s" : "%.0f %s", value, units[unit]);
    return text;
}

std::string humanDuration(double seconds)
{
    const long total = seconds < 0 ? 0 : static_cast<long>(seconds + 0.5);
    char text[32];
    if (total >= 3600) {
        std::snprintf(text, sizeof(text), "%ld:%02ld:%02ld", total / 3600, total / 60 % 60, total % 60);
    } else {
        std::snprintf(text, sizeof(text), "%ld:%02ld", total / 60, total % 60);
    }
    return text;
}

void printFields(const std::vector<std::pair<std::string, std::string>>& fields)
{
    size_t width = 0;
    for (const auto& f : fields) width = std::max(width, f.first.size());
    for (const auto& f : fields) std::cout << f.first << ':' << std::string(width - f.first.size() + 1, ' ') << f.second << '\n';
}

void printJson(const json& value)
{
    // Replacement of bad UTF-8 instead of an exception: names come from
    // storage servers, not from us.
    std::cout << value.dump(2, ' ', false, json::error_handler_t::replace) << '\n';
}

} // namespace keldctl
