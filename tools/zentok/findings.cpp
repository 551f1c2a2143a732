#include "tools/zentok/findings.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iostream>

#include <fcntl.h>
#include <io.h>

#include "tools/zentok/failure.h"
#include "tools/zentok/json.h"

namespace {

/// In the order of Verdict.
constexpr std::array<const char*, 4> VERDICTS = {"ok", "skipped", "warning", "error"};
constexpr std::size_t VERDICT_COLUMN = 9;
constexpr std::size_t TOPIC_COLUMN = 24;

std::string name(Verdict verdict) {
    return VERDICTS[static_cast<std::size_t>(verdict)];
}

std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(text.size() + 2, width), ' ');
    return text;
}

std::string timeText(double milliseconds) {
    std::array<char, 32> text = {};
    std::snprintf(text.data(), text.size(), "%.1f", milliseconds);
    return text.data();
}

std::string lineOf(const Finding& finding) {
    std::string line = padded(name(finding.verdict), VERDICT_COLUMN) + padded(finding.topic, TOPIC_COLUMN) +
                       finding.text + (finding.time ? " (" + timeText(*finding.time) + " ms)" : "") + "\n";
    if (!finding.advice.empty()) {
        line += std::string(VERDICT_COLUMN, ' ') + "-> " + finding.advice + "\n";
    }
    return line;
}

std::string objectOf(const Finding& finding) {
    std::vector<JsonMember> members = {{"topic", jsonText(finding.topic)},
                                       {"verdict", jsonText(name(finding.verdict))},
                                       {"text", jsonText(finding.text)}};
    if (!finding.advice.empty()) {
        members.emplace_back("advice", jsonText(finding.advice));
    }
    if (finding.time) {
        members.emplace_back("milliseconds", timeText(*finding.time));
    }
    return jsonObject(members);
}

}  // namespace

QuietOutput::QuietOutput() : output_(_dup(1)), nowhere_(_open("NUL", _O_WRONLY)) {
    std::fflush(stdout);
    _dup2(nowhere_, 1);
}

void QuietOutput::print(const std::string& text) const {
    std::fflush(stdout);
    _dup2(output_, 1);
    const bool isWritten = static_cast<bool>(std::cout << text << std::flush);
    _dup2(nowhere_, 1);
    if (!isWritten) {
        throw Failure("cannot write the output");
    }
}

Finding failedFinding(std::string topic, const std::exception& failure) {
    const std::string whole = failure.what();
    const std::size_t end = std::min(whole.find('\n'), whole.size());
    std::string advice = whole.substr(std::min(end + 1, whole.size()));
    std::ranges::replace(advice, '\n', ' ');
    return {std::move(topic), Verdict::Error, whole.substr(0, end), std::move(advice)};
}

void printFindings(const QuietOutput& output, const Findings& findings, bool json) {
    Verdict worst = Verdict::Ok;
    std::string lines;
    std::vector<std::string> objects;
    for (const Finding& finding : findings) {
        // Something that was left out is no fault.
        worst = std::max(worst, finding.verdict == Verdict::Skipped ? Verdict::Ok : finding.verdict);
        lines += lineOf(finding);
        objects.push_back(objectOf(finding));
    }
    const JsonMember members[] = {{"verdict", jsonText(name(worst))}, {"lines", jsonArray(objects)}};
    output.print(json ? jsonObject(members) + "\n" : lines);
    if (const auto errors = std::ranges::count(findings, Verdict::Error, &Finding::verdict); errors != 0) {
        throw Failure(std::to_string(errors) + (errors == 1 ? " error" : " errors") +
                      " found\nWhat to do stands with each.");
    }
}
