#include "DataPathFigures.h"

#include <algorithm>

namespace bench {

std::string decimal(double value, int decimals)
{
    char text[64];
    std::snprintf(text, sizeof(text), "%.*f", decimals, value);
    return text;
}

double Figure::median() const
{
    if (m_values.empty()) return 0;
    std::vector<double> v = m_values;
    std::sort(v.begin(), v.end());
    const size_t middle = v.size() / 2;
    return v.size() % 2 == 1 ? v[middle] : (v[middle - 1] + v[middle]) / 2;
}

double Figure::lowest() const
{
    return m_values.empty() ? 0 : *std::min_element(m_values.begin(), m_values.end());
}

double Figure::highest() const
{
    return m_values.empty() ? 0 : *std::max_element(m_values.begin(), m_values.end());
}

double Figure::spread() const
{
    const double m = median();
    return m > 0 ? (highest() - lowest()) / m : 0;
}

std::string Figure::text(int decimals) const
{
    return decimal(median(), decimals) + " [" + decimal(lowest(), decimals) + "-" + decimal(highest(), decimals) + "]";
}

void Report::watch(const std::string& what, const Figure& figure)
{
    if (figure.steady()) return;
    char line[512];
    std::snprintf(line, sizeof(line), "WARNING: %s spreads %.0f %% (over %.0f %%): %s", what.c_str(),
                  figure.spread() * 100, kSteadySpread * 100, figure.text(figure.median() >= 10 ? 0 : 2).c_str());
    std::fprintf(m_out, "%s\n", line);
    m_warnings.push_back(line);
}

void Report::target(const std::string& what, double value, const std::string& valueText, double atLeast)
{
    const bool holds = value >= atLeast;
    if (!holds) ++m_misses;
    char line[512];
    std::snprintf(line, sizeof(line), "%-58s >= %-5.2f %-6s %s", what.c_str(), atLeast, holds ? "holds" : "misses",
                  valueText.c_str());
    m_targets.push_back(line);
}

void Report::target(const std::string& what, const Figure& figure, double atLeast, int decimals)
{
    target(what, figure.median(), figure.text(decimals), atLeast);
}

void Report::printSummary() const
{
    std::fprintf(m_out, "\ntargets (medians, [lowest-highest] round):\n");
    for (const std::string& line : m_targets) std::fprintf(m_out, "  %s\n", line.c_str());
    std::fprintf(m_out, "%zu target(s) missed; %zu figure(s) spread over %.0f %%\n", m_misses, m_warnings.size(),
                 kSteadySpread * 100);
    for (const std::string& line : m_warnings) std::fprintf(m_out, "  %s\n", line.c_str());
}

} // namespace bench
