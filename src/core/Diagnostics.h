#pragma once
// The processes' own diagnostics and the failures that end a command. One line each, on standard
// error, as "tapwright: <message>". This is not the error log the user reads in the library (that
// is LogToFile); it is what a person starting the tools sees.
#include <cstdarg>
#include <stdexcept>
#include <string>

namespace tw {

// Writes "tapwright: <formatted message>\n" to standard error and flushes it.
void diagnostic(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Writes "<prefix><formatted message>\n" to standard error and flushes it: one whole line even
// when other threads write lines of their own.
void writeStderrLine(const char* prefix, const char* format, va_list args) __attribute__((format(printf, 2, 0)));

// A failure that ends a command: thrown by the command's code and the process wiring under it,
// caught once by the CLI, which prints "tapwright: <what()>" and exits with status().
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& message, int status = 1) : std::runtime_error(message), status_(status) {}
    int status() const { return status_; }

private:
    int status_;
};

[[noreturn]] inline void fail(const std::string& message, int status = 1) { throw Failure(message, status); }

}  // namespace tw
