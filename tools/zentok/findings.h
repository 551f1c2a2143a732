// What a diagnosis found, line by line, each with its verdict and what to do next.
#pragma once

#include <exception>
#include <optional>
#include <string>
#include <vector>

enum class Verdict { Ok, Skipped, Warning, Error };

struct Finding {
    std::string topic;  ///< what was looked at, "log level"
    Verdict verdict = Verdict::Ok;
    std::string text = {};            ///< what was found, in UTF-8 like everything here
    std::string advice = {};          ///< what to do next; empty when nothing is to be done
    std::optional<double> time = {};  ///< how long it took, in milliseconds
};

using Findings = std::vector<Finding>;

/// Keeps what is written to the standard output from it, for as long as it lives: the provider says there when it
/// cannot write its log, in the middle of whatever this program has to say.
class QuietOutput {
public:
    QuietOutput();
    ~QuietOutput();
    QuietOutput(const QuietOutput&) = delete;
    QuietOutput& operator=(const QuietOutput&) = delete;

private:
    int output_;
};

/// The error that an exception of this program describes: its first line is the text, the rest the advice.
Finding failedFinding(std::string topic, const std::exception& failure);

/// Prints the findings, one line each with its advice below, or as one JSON object:
/// {"verdict": the worst one, "lines": [{"topic", "verdict", "text", "advice", "milliseconds"}]}; the last two only
/// where there is one. Throws Failure when one of them is an error.
void printFindings(const Findings& findings, bool json);
