// What is being fetched while a command waits for it, on standard error where that is a terminal.
//
// Threads: a thread of its own looks at the status record meanwhile.
#pragma once

#include <functional>

namespace kestrune {

/// Does `work` and shows all downloads until it ends, by itself or by what it throws.
void showingDownloads(const std::function<void()>& work);

}  // namespace kestrune
