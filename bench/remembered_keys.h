// Keys that were derived from a password before. Two hundred thousand rounds are most of what a sealed run on a small
// disk costs, and a test reads the same few images again and again: where the environment names a folder for it, a key
// is computed once for each password, salt and count, and found there from then on. Not for secrets: the folder has
// them all in the open.
#pragma once

#include <windows.h>

#include <bcrypt.h>

namespace vornix::bench {

// As the call of that name. Where the key is remembered, one round is asked of the host all the same, so that whatever
// it refuses is refused.
NTSTATUS DeriveKeyOnce(BCRYPT_ALG_HANDLE prf, PUCHAR password, ULONG passwordLength, PUCHAR salt, ULONG saltLength,
                       ULONGLONG iterations, PUCHAR key, ULONG keyLength, ULONG flags);

// As BCryptGenRandom. A run that seals draws a salt, so that its key is in no folder: where the environment asks for
// one salt (VORNIX_BENCH_SALT is not empty), what is as long as a salt is the same in each run. All else is drawn,
// nonces among it.
NTSTATUS DrawOrSameSalt(BCRYPT_ALG_HANDLE algorithm, PUCHAR buffer, ULONG length, ULONG flags);

} // namespace vornix::bench
