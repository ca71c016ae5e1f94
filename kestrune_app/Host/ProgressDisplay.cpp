#include "kestrune_app/Host/ProgressDisplay.h"

#include <chrono>
#include <cmath>
#include <cstdio>

#include "MailCore/Common/DisplayText.h"
#include "MailCore/Common/UTF8.h"

namespace kestrune {

namespace {

// Least time between two plain lines.
constexpr double plainLineInterval = 5;
// The longest folder name shown, in characters.
constexpr std::size_t folderWidth = 60;
constexpr std::string_view eraseLine = "\r\033[K";

}  // namespace

std::string groupedNumber(std::int64_t n) {
    std::string digits = std::to_string(n < 0 ? -n : n);
    for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3)
        digits.insert(static_cast<std::size_t>(at), ",");
    return n < 0 ? "-" + digits : digits;
}

ProgressDisplay::Clock ProgressDisplay::steadyClock() {
    return [] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
            .count();
    };
}

ProgressDisplay::ProgressDisplay(Mode mode, Write write, Clock clock, std::size_t width)
    : mode_(mode), write_(std::move(write)), clock_(std::move(clock)), width_(width) {
    start();
}

ProgressDisplay::~ProgressDisplay() { clear(); }

void ProgressDisplay::start() {
    started_ = clock_();
    anyLine_ = false;
}

void ProgressDisplay::report(const std::string& label, const std::string& folder, std::int64_t done,
                             std::int64_t total) {
    if (mode_ == Mode::quiet) return;
    const double now = clock_();
    std::string line = (label.empty() ? "" : mailcore::DisplayText::line(label, 100) + "  ") +
                       text(folder, done, total, now - started_);
    if (mode_ == Mode::terminal) {
        if (width_ > 1 && mailcore::utf8::characterCount(line) >= width_)
            line = std::string(mailcore::utf8::prefix(line, width_ - 2)) + "\u2026";
        write_(std::string(eraseLine) + line);
        drawn_ = true;
    } else if (!anyLine_ || now - lastLine_ >= plainLineInterval || done >= total) {
        anyLine_ = true;
        lastLine_ = now;
        write_(line + "\n");
    }
}

void ProgressDisplay::clear() {
    if (!drawn_) return;
    drawn_ = false;
    write_(eraseLine);
}

std::string ProgressDisplay::text(std::string_view folder, std::int64_t done, std::int64_t total,
                                  double seconds) {
    std::string line = mailcore::DisplayText::line(folder, folderWidth) + "  " +
                       groupedNumber(done) + " of " + groupedNumber(total);
    if (seconds <= 0 || done <= 0) return line;
    const double rate = static_cast<double>(done) / seconds;
    line += "  " + groupedNumber(std::llround(rate)) + "/s";
    if (total > done) {
        const auto left = std::llround(static_cast<double>(total - done) / rate);
        char clock[48];
        if (left >= 3600)
            std::snprintf(clock, sizeof clock, "%lld:%02lld:%02lld", left / 3600, left / 60 % 60,
                          left % 60);
        else
            std::snprintf(clock, sizeof clock, "%lld:%02lld", left / 60, left % 60);
        line += "  " + std::string(clock) + " left";
    }
    return line;
}

}  // namespace kestrune
