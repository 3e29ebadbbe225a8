// The name that a local version gets beside the store's when both were changed: the file's own name, where
// and when, and its extension where programs look for it.
//
//     "report.pdf"  "report (conflict kestrel 2026-11-22 04.15).pdf"
//
// Plain functions: callable from any thread.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "platform/values/Date.h"

namespace kestrune::host {

/// A name for the local version of `name` that is not taken: `isTaken` is asked until it says no.
/// `machine` is cut and cleaned of what does not belong into names; the time is shown in UTC. The
/// result has at most kLongestNameBytes bytes, is UTF-8 where `name` is, and is never `name` itself.
/// REQUIRES: `name` is a file name.
std::string conflictName(std::string_view name, std::string_view machine, platform::Date time,
                         const std::function<bool(const std::string&)>& isTaken);

/// Whether `name` is of the form that conflictName makes, on whatever machine: told by the name alone, so a copy that was renamed is none
/// any more.
bool isConflictName(std::string_view name);

}  // namespace kestrune::host
