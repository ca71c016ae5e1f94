#include <gtest/gtest.h>

#include "kestrune_app/Host/ProgressDisplay.h"

namespace kestrune {
namespace {

// Reports at the given seconds, as one string of everything written.
std::string shown(ProgressDisplay::Mode mode,
                  const std::vector<std::tuple<double, std::string, std::int64_t>>& reports,
                  std::int64_t total, std::size_t width = 0) {
    double now = 100;
    std::string written;
    {
        ProgressDisplay display(
            mode, [&](std::string_view bytes) { written += bytes; }, [&] { return now; }, width);
        for (const auto& [at, folder, done] : reports) {
            now = 100 + at;
            display.report("me@example.com", folder, done, total);
        }
    }
    return written;
}

TEST(ProgressDisplay, ShowsEachModeAsItsOutputExpects) {
    using Mode = ProgressDisplay::Mode;
    const std::vector<std::tuple<double, std::string, std::int64_t>> reports = {
        {0, "INBOX", 0}, {2, "INBOX", 500}, {5, "INBOX", 1000}, {6, "Sent", 1200}};
    const struct {
        Mode mode;
        std::string expected;
    } cases[] = {
        // Plain lines: the first, then none within five seconds, and the end.
        {Mode::lines,
         "me@example.com  INBOX  0 of 1,200\n"
         "me@example.com  INBOX  1,000 of 1,200  200/s  0:01 left\n"
         "me@example.com  Sent  1,200 of 1,200  200/s\n"},
        // In place: every report redrawn, and the line erased at the end.
        {Mode::terminal,
         "\r\033[Kme@example.com  INBOX  0 of 1,200"
         "\r\033[Kme@example.com  INBOX  500 of 1,200  250/s  0:03 left"
         "\r\033[Kme@example.com  INBOX  1,000 of 1,200  200/s  0:01 left"
         "\r\033[Kme@example.com  Sent  1,200 of 1,200  200/s"
         "\r\033[K"},
        {Mode::quiet, ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(shown(c.mode, reports, 1200), c.expected) << static_cast<int>(c.mode);
}

TEST(ProgressDisplay, AFolderNameCannotReachTheTerminalAsCodes) {
    const auto text = shown(ProgressDisplay::Mode::terminal, {{1, "In\033[2Jbox\n", 1}}, 9);
    EXPECT_EQ(text, "\r\033[Kme@example.com  In·[2Jbox⏎  1 of 9  1/s  0:08 left\r\033[K");
}

TEST(ProgressDisplay, TheInPlaceLineFitsTheTerminalSoThatItCanBeRedrawn) {
    EXPECT_EQ(shown(ProgressDisplay::Mode::terminal, {{0, "INBOX", 0}}, 9, 24),
              "\r\033[Kme@example.com  INBOX \u2026\r\033[K");
}

TEST(ProgressDisplay, TimeLeftPastAnHourShowsHours) {
    EXPECT_EQ(ProgressDisplay::text("INBOX", 10, 100000, 1),
              "INBOX  10 of 100,000  10/s  2:46:39 left");
}

}  // namespace
}  // namespace kestrune
