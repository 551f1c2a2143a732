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

/// From its making to the end of the program, nothing but what it prints reaches the standard output. The provider
/// writes there, until it is unloaded, whenever it cannot write its log.
class QuietOutput {
public:
    QuietOutput();
    void print(const std::string& text) const;

private:
    int output_;
    int nowhere_;
};

/// The error that an exception of this program describes: its first line is the text, the rest the advice.
Finding failedFinding(std::string topic, const std::exception& failure);

/// Prints the findings, one line each with its advice below, or as one JSON object:
/// {"verdict": the worst one, "lines": [{"topic", "verdict", "text", "advice", "milliseconds"}]}; the last two only
/// where there is one. Throws Failure when one of them is an error.
void printFindings(const QuietOutput& output, const Findings& findings, bool json);
