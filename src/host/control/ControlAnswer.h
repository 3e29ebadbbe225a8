// What the control socket answers, as lines of JSON: perhaps some that tell of progress, then one that ends the answer.
//
//     {"left":12}                                    progress of "sync": so many changes are not at the store yet
//     {"done":true,"result":{…}}                     the end
//     {"done":true,"error":"…"}                      the end; the text is for people
//
// Times are ISO 8601 in UTC. Texts are valid UTF-8 whatever came from elsewhere; paths see ControlRequest.h.
//
// Threads: plain functions.
#pragma once

#include <string>
#include <vector>

#include "host/control/HostControl.h"
#include "platform/values/Json.h"

namespace kestrune::host {

/// Of the extension: null where it runs within the host, else
///
///     {"process":7,"starts":3,"deaths":1,"lastDeath":"signal 11 (…)","refusal":"…",
///      "confinement":{"whyNoBubblewrap":"…","notEnforced":["…"]}}
///
/// without what is not so: no process that runs, no death, no start that failed, bubblewrap that is used; without "confinement" before the
/// first one has started.
platform::Json toJson(const HostStatus& status);
/// {"count":2,"changes":[…]}
platform::Json toJson(const PendingChanges& changes);
platform::Json toJson(const ItemState& state);
/// The state's keys, and {"atStore":true,"cause":{"kind":"program","program":"vim","at":"…"},"whyNotEvictable":"…","storeError":"…","lastUsed":"…"};
/// without what is not so or not known.
platform::Json toJson(const ItemReasons& reasons);

/// [{"path":"/a","result":…},{"path":"/b","error":"…"}]. A missing answer is an error of its path.
platform::Json toJson(const std::vector<std::string>& paths, const Each<Done>& answers);
platform::Json toJson(const std::vector<std::string>& paths, const Each<std::string>& answers);
platform::Json toJson(const std::vector<std::string>& paths, const Each<ItemState>& answers);
platform::Json toJson(const std::vector<std::string>& paths, const Each<ItemReasons>& answers);
/// {"lines":["…"]}
platform::Json logToJson(const std::vector<std::string>& lines);

/// Whole lines, with their ends.
std::string resultLine(platform::Json result);
std::string errorLine(const std::string& text);
std::string progressLine(std::uint64_t left);

}  // namespace kestrune::host
