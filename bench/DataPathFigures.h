// The figures of the data path benchmark: every one is measured in several
// alternating rounds and printed as its median with the lowest and highest
// round beside it, so that a reader sees at once how far a figure can be
// trusted.  A spread over a fifth of the median is flagged, and each target
// is printed with whether it holds.
#ifndef KELD_BENCH_DATAPATHFIGURES_H
#define KELD_BENCH_DATAPATHFIGURES_H

#include <cstdio>
#include <string>
#include <vector>

namespace bench {

// Above this spread ((highest - lowest) / median) a figure says more about
// the machine's other load than about the path measured.
const double kSteadySpread = 0.20;

// value with `decimals` places.
std::string decimal(double value, int decimals);

class Figure {
public:
    void add(double value) { m_values.push_back(value); }
    size_t rounds() const { return m_values.size(); }
    // Of an even count, the mean of the middle two.
    double median() const;
    double lowest() const;
    double highest() const;
    double spread() const;
    bool steady() const { return spread() <= kSteadySpread; }
    // "0.85 [0.80-0.90]", with `decimals` places.
    std::string text(int decimals) const;

private:
    std::vector<double> m_values;
};

// The warnings and the verdicts of one run, printed as they come and
// gathered once more at its end.
class Report {
public:
    explicit Report(std::FILE* out = stdout) : m_out(out) {}
    // A WARNING line when the figure's spread is over kSteadySpread.
    void watch(const std::string& what, const Figure& figure);
    // "holds" when value >= atLeast, else "misses".
    void target(const std::string& what, double value, const std::string& valueText, double atLeast);
    void target(const std::string& what, const Figure& figure, double atLeast, int decimals = 2);
    void printSummary() const;
    size_t warnings() const { return m_warnings.size(); }
    size_t misses() const { return m_misses; }

private:
    std::FILE* m_out;
    std::vector<std::string> m_warnings;
    std::vector<std::string> m_targets;
    size_t m_misses = 0;
};

} // namespace bench

#endif
