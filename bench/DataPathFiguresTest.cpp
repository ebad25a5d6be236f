// The figures of the data path benchmark: a figure's median and spread, the
// WARNING it gets over a fifth of its median, and the verdict on a target.
#include "DataPathFigures.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

bench::Figure figureOf(std::initializer_list<double> values)
{
    bench::Figure f;
    for (double v : values) f.add(v);
    return f;
}

// Everything a report printed so far.
std::string printed(std::FILE* out)
{
    std::string text;
    std::rewind(out);
    for (int c; (c = std::fgetc(out)) != EOF;) text += static_cast<char>(c);
    return text;
}

TEST(DataPathFigures, MedianAndSpreadOfTheRounds)
{
    // Rounds come in the order they ran, not sorted.
    const bench::Figure odd = figureOf({0.9, 0.7, 1.1, 0.8, 1.0});
    EXPECT_DOUBLE_EQ(0.9, odd.median());
    EXPECT_DOUBLE_EQ(0.7, odd.lowest());
    EXPECT_DOUBLE_EQ(1.1, odd.highest());
    EXPECT_NEAR(0.4 / 0.9, odd.spread(), 1e-12);
    EXPECT_EQ("0.90 [0.70-1.10]", odd.text(2));

    // Of an even count the middle two weigh alike: the upper one alone would
    // flatter a figure by half a round.
    const bench::Figure even = figureOf({400, 100, 300, 200});
    EXPECT_DOUBLE_EQ(250, even.median());
    EXPECT_EQ("250 [100-400]", even.text(0));

    // A spread of exactly a fifth is still steady; a little more is not.
    EXPECT_TRUE(figureOf({4, 5, 5}).steady());
    EXPECT_FALSE(figureOf({4, 5, 5.01}).steady());

    // No rounds and a zero median give no spread, not a division by zero.
    EXPECT_DOUBLE_EQ(0, bench::Figure().spread());
    EXPECT_DOUBLE_EQ(0, figureOf({0, 0, 3}).spread());
}

TEST(DataPathFigures, ReportWarnsOfWideSpreadsAndGivesEachTargetItsVerdict)
{
    std::FILE* out = std::tmpfile();
    ASSERT_NE(nullptr, out);
    {
        bench::Report report(out);
        report.watch("steady figure", figureOf({0.95, 1.0, 1.05}));
        report.watch("tmpfs, write 64 KiB", figureOf({0.6, 0.8, 0.92}));
        report.watch("disk, read 4 MiB", figureOf({4, 5, 5.1}));
        EXPECT_EQ(2u, report.warnings());
        EXPECT_NE(std::string::npos,
                  printed(out).find("WARNING: tmpfs, write 64 KiB spreads 40 % (over 20 %): 0.80 [0.60-0.92]"));
        EXPECT_NE(std::string::npos, printed(out).find("WARNING: disk, read 4 MiB spreads 22 %"));
        EXPECT_EQ(std::string::npos, printed(out).find("steady figure"));

        report.target("reaches its bound", 0.85, "0.85", 0.85);
        report.target("four clients", figureOf({1.6, 1.69, 1.8}), 1.7);
        report.target("calls", figureOf({0.999, 0.99, 0.98}), 0.99, 3);
        EXPECT_EQ(1u, report.misses());
        report.printSummary();
    }
    const std::string text = printed(out);
    std::fclose(out);
    const size_t bound = text.find("reaches its bound");
    const size_t clients = text.find("four clients");
    const size_t calls = text.find("calls");
    ASSERT_NE(std::string::npos, bound);
    ASSERT_NE(std::string::npos, clients);
    ASSERT_NE(std::string::npos, calls);
    EXPECT_NE(std::string::npos, text.find("holds", bound));
    EXPECT_LT(text.find("holds", bound), clients);
    EXPECT_NE(std::string::npos, text.find("misses 1.69 [1.60-1.80]", clients));
    EXPECT_NE(std::string::npos, text.find("holds  0.990 [0.980-0.999]", calls));
    EXPECT_NE(std::string::npos, text.find("1 target(s) missed; 2 figure(s) spread over 20 %"));
}

} // namespace
