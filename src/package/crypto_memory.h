// Memory for the large messages that libcrypto reads. Any thread.
#pragma once

// From now on libcrypto takes its large blocks from here. Returns false, and changes nothing, when it has
// taken memory before. Call it once, before there are other threads.
[[nodiscard]] bool use_crypto_memory();

// Gives back to the system what large blocks libcrypto has freed; until then they wait for their next use.
void release_crypto_memory();
