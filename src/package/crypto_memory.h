// Memory for the large messages that libcrypto reads.
#pragma once

// From now on libcrypto takes each large block from the system and gives it back as soon as it is freed.
// Returns false, and changes nothing, when libcrypto has taken memory before. Once, before other threads run.
bool use_crypto_memory();
