// Scaffolding shared by the sanitizer tests: input/output tables run through
// one step, long repeated inputs, and the realistic mail corpus (read with
// testfiles::readFile).
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "MailCore/AI/AIContentSanitizer.h"
#include "MailCore/Common/UTF8.h"
#include "tests/fakes/TestFiles.h"

namespace mailcore::testing {

using S = AIContentSanitizer;

struct Case {
    std::string input;
    std::string output;
};

// Each case's input through `step` gives its output.
template <typename Step>
void expectEach(const std::vector<Case>& cases, Step step) {
    for (const Case& c : cases) EXPECT_EQ(step(c.input), c.output) << c.input;
}

inline SanitizedText clean(std::string_view text, std::int64_t budget = 100000) {
    return S::sanitize(text, AIContentSanitizerOptions::standard(budget));
}

inline std::string repeated(std::string_view unit, std::size_t size) {
    std::string s;
    s.reserve(size + unit.size());
    while (s.size() < size) s.append(unit);
    return s;
}

inline std::filesystem::path corpusDirectory() {
    const char* source = std::getenv("KESTRUNE_SOURCE_DIR");
    return std::filesystem::path(source ? source : ".") / "tests/MailCore/AI/corpus";
}

}  // namespace mailcore::testing
