// ProgressDisplay: how `kestrune import` and `kestrune sync` show how far
// they are ("INBOX  1,250 of 20,000  850/s  0:22 left").
//
// On a terminal one line is redrawn in place (carriage return, erase line)
// at every report; elsewhere plain lines come, at most one every five
// seconds and always the last one of a count (done equal to total); quiet
// shows nothing. Rate and time left are measured from the last start().
// Names from mail (folders) pass through the display-text rule, so they
// cannot move the cursor or break the line.
//
// Time comes only from the injected clock. Not thread-safe: one reporter.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace kestrune {

class ProgressDisplay {
public:
    enum class Mode { terminal, lines, quiet };
    // Seconds on a monotonic clock.
    using Clock = std::function<double()>;
    // Writes bytes to the output as they are (no line feed added).
    using Write = std::function<void(std::string_view)>;

    static Clock steadyClock();

    // `width`: the terminal's columns, to which the in-place line is cut
    // (a line that wrapped could not be redrawn); 0 when unknown.
    ProgressDisplay(Mode mode, Write write, Clock clock = steadyClock(), std::size_t width = 0);
    ~ProgressDisplay();
    ProgressDisplay(const ProgressDisplay&) = delete;
    ProgressDisplay& operator=(const ProgressDisplay&) = delete;

    // A new count begins (a new folder of a sync).
    void start();
    // `label` leads the line (an account, or nothing); `folder` is the name
    // being worked on.
    void report(const std::string& label, const std::string& folder, std::int64_t done,
                std::int64_t total);
    // Erases the in-place line so that whole lines can follow; the next
    // report draws it again.
    void clear();

    // "INBOX  1,250 of 20,000  850/s  0:22 left" (no rate before any time
    // has passed, no time left once done).
    static std::string text(std::string_view folder, std::int64_t done, std::int64_t total,
                            double seconds);

private:
    Mode mode_;
    Write write_;
    Clock clock_;
    std::size_t width_;
    double started_ = 0;
    double lastLine_ = 0;
    bool anyLine_ = false;  // a plain line was written since start()
    bool drawn_ = false;    // the in-place line is on the screen
};

// 20000 as "20,000".
std::string groupedNumber(std::int64_t n);

}  // namespace kestrune
