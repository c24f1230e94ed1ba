#pragma once

// The libraries' diagnostic lines on std::cout when writing them fails.
//
// Writing to std::cout never throws here (the stream catches what its buffer
// throws and sets badbit), but a stream whose buffer cannot grow, such as a
// std::ostringstream a host put in its place when memory runs out, drops the
// rest of the line and is left bad: every later line would then be lost
// without a word. A DiagnosticLine around the writing of one line undoes
// that: when the stream was good before the line and is bad after it, the
// part written so far is ended with a newline (where that can be written)
// and the stream is made good again, so that the next line is written whole
// and starts on a line of its own. A stream that was already bad, or one
// whose owner asked for exceptions, is left alone.
//
// Not installed: for the libraries' own sources.

#include <ios>
#include <iostream>

namespace Kest::detail {

class DiagnosticLine {
public:
    DiagnosticLine() noexcept : wasGood_(std::cout.good()) {}
    ~DiagnosticLine() {
        if (!wasGood_ || std::cout.good() || std::cout.exceptions() != std::ios_base::goodbit) return;
        std::cout.clear();
        std::cout.put('\n');
        std::cout.flush();
        std::cout.clear();
    }
    DiagnosticLine(const DiagnosticLine&) = delete;
    DiagnosticLine& operator=(const DiagnosticLine&) = delete;

private:
    bool wasGood_;
};

}  // namespace Kest::detail
