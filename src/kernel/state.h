// SPDX-License-Identifier: GPL-2.0-only
// The state folder: what must be remembered over restarts and reboots when the place where it
// belongs cannot be written. A note says of a file somewhere else that it is not to be believed.
//
// A note is a name in the folder, so that it needs no descriptor and several daemons may share one
// folder; it is on stable storage when state_note returns.
#pragma once

#include "kernel/types.h"

namespace kernel {

constexpr std::size_t state_id_bytes = 16;

// Makes the folder (mode 0700) and what leads to it if need be, and gives it an id if it has none.
//   dir      absolute; empty or null: no folder from now on
//   returns  0 | negative errno: there is no folder then
[[nodiscard]] int state_set_dir(const char* dir);
// The folder's id, chosen at random when it was made, another one in a copy of the folder; all zero
// while there is none.
void state_id(u8 (&id)[state_id_bytes]);

// Keys are of letters, digits, '-' and '.', at most 200 of them. All three may sleep.
//   text     for the person who looks into the folder: the file's path
//   returns  0 (also when it was noted already) | -ENOENT (no folder) | negative errno
[[nodiscard]] int state_note(const char* key, const char* text);
// 1 | 0 | negative errno (no folder, or it cannot be asked: it may be noted, and it may not)
[[nodiscard]] int state_noted(const char* key);
//   outdated  null, or the path of a file that has been believed for what the key said and may not
//             be any more: as long as the key has no new value, it stands as a note of that text
//   returns   0 (also when it was not noted) | negative errno
[[nodiscard]] int state_forget(const char* key, const char* outdated = nullptr);
// Forgets every key that begins so and whose value ends so.
//   returns  0 | as state_note
[[nodiscard]] int state_forget_all(const char* prefix, const char* ending);
// Of the notes that this process has made or found and that stand, from memory: whether one has
// that text; how many there are.
[[nodiscard]] bool state_stands(const char* text);
[[nodiscard]] std::size_t state_standing();
// A key with a value, of at most 200 characters, in the place of what it had.
[[nodiscard]] int state_put(const char* key, const char* value);  // 0 | as state_note
// Its value, NUL-terminated, as it is on stable storage.
//   returns  its length | 0 (it has none) | as state_note (-EOVERFLOW: it does not fit)
[[nodiscard]] int state_get(const char* key, char* value, std::size_t bytes);

}  // namespace kernel
