// Every format that the extension logs with, and the kinds of its arguments. The unified log wants
// formats as constants at the place of the call; whoever adds a line to the extension's log adds its
// format here (a test compares the two).
//
// KESTRUNE_LOG_FORMATS(LINE) expands to LINE(format, argument...) for each, where the arguments are
// asked of an object named `arguments`.
#pragma once

#define KESTRUNE_LOG_FORMATS(LINE)                                                                 \
  LINE("init domain=%s apiURL=%s token=%s", arguments.text(0), arguments.text(1),                  \
       arguments.text(2))                                                                          \
  LINE("enumerateItems failed: %{public}s", arguments.text(0))                                     \
  LINE("enumerateItems %{public}s: %ld items, token=%{public}s", arguments.text(0),                \
       arguments.integer(1), arguments.text(2))                                                    \
  LINE(                                                                                            \
      "enumerateChanges: %ld candidate-deletions in %{public}s suppressed \xE2\x80\x94 active "    \
      "transfers under this path",                                                                 \
      arguments.integer(0), arguments.text(1))                                                     \
  LINE(                                                                                            \
      "enumerateChanges: %ld candidate-deletions in %{public}s reappeared on second fetch "        \
      "\xE2\x80\x94 suppressed",                                                                   \
      arguments.integer(0), arguments.text(1))                                                     \
  LINE("enumerateChanges: deleted %ld items in %{public}s", arguments.integer(0),                  \
       arguments.text(1))                                                                          \
  LINE("enumerateChanges: updated %ld items in %{public}s", arguments.integer(0),                  \
       arguments.text(1))                                                                          \
  LINE("enumerateChanges failed: %{public}s", arguments.text(0))                                   \
  LINE("fetchContents attempt %ld failed \xE2\x80\x94 retrying in %.*fs (%{public}s)",             \
       arguments.integer(0), arguments.smallInteger(1), arguments.real(2), arguments.text(3))      \
  LINE("fetchPartialContents path=%{public}s range=%ld..%ld", arguments.text(0),                   \
       arguments.integer(1), arguments.integer(2))                                                 \
  LINE("partial fetch sized: %ld bytes (read-ahead=%ld)", arguments.integer(0),                    \
       arguments.integer(1))                                                                       \
  LINE("partial fetch attempt %ld failed at %ld/%ld \xE2\x80\x94 retrying in %.*fs (%{public}s)",  \
       arguments.integer(0), arguments.integer(1), arguments.integer(2),                           \
       arguments.smallInteger(3), arguments.real(4), arguments.text(5))                            \
  LINE("streamContents path=%{public}s range=%ld..%ld", arguments.text(0), arguments.integer(1),   \
       arguments.integer(2))                                                                       \
  LINE("stream attempt %ld failed at %ld/%ld \xE2\x80\x94 retrying in %.*fs (%{public}s)",         \
       arguments.integer(0), arguments.integer(1), arguments.integer(2),                           \
       arguments.smallInteger(3), arguments.real(4), arguments.text(5))                            \
  LINE("createItem begin name=%{public}s isDir=%{bool}d", arguments.text(0), arguments.flag(1))    \
  LINE("createItem rejecting system junk name=%{public}s", arguments.text(0))                      \
  LINE("createItem uploading %lld bytes", arguments.longInteger(0))                                \
  LINE("createItem done %lld bytes in %.*fs (%.*f MB/s)", arguments.longInteger(0),                \
       arguments.smallInteger(1), arguments.real(2), arguments.smallInteger(3), arguments.real(4)) \
  LINE("createItem failed name=%{public}s err=%{public}s", arguments.text(0), arguments.text(1))   \
  LINE("deleteItem failed: %{public}s", arguments.text(0))                                         \
  LINE("customAction %{public}s on %ld items", arguments.text(0), arguments.integer(1))            \
  LINE("customAction item=%{public}s err=%{public}s", arguments.text(0), arguments.text(1))        \
  LINE("begin size=%lld parts=%ld destPath=%{public}s", arguments.longInteger(0),                  \
       arguments.integer(1), arguments.text(2))                                                    \
  LINE("s3UploadId=%{public}s key=%{public}s", arguments.text(0), arguments.text(1))               \
  LINE("done destPath=%{public}s", arguments.text(0))
