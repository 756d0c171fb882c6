// Turns whatever a piece of work throws into the command line's one error type, so that a
// failure in a worker thread is reported like any other instead of ending the process.
#pragma once

#include <memory>
#include <new>
#include <string>

#include "app/CliError.hpp"

namespace quillo::cli {

// Runs `work`; null when it returned, else its error (a CliError as it was, anything else as
// a failure whose message starts with `subject`, when one is given).
template <class Work>
std::unique_ptr<CliError> caughtError(const std::string& subject, Work&& work) {
  const std::string about = subject.empty() ? "" : subject + ": ";
  try {
    work();
    return nullptr;
  } catch (const CliError& e) {
    return std::make_unique<CliError>(e);
  } catch (const std::bad_alloc&) {
    return std::make_unique<CliError>(kFailure, about + "out of memory");
  } catch (const std::exception& e) {
    return std::make_unique<CliError>(kFailure, about + "internal error: " + e.what());
  } catch (...) {
    return std::make_unique<CliError>(kFailure, about + "internal error of an unknown kind");
  }
}

}  // namespace quillo::cli
