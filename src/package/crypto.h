// Package cryptography on libcrypto: decryption with the device key, and the two signature checks. Main
// thread only (fota_verify_digest_signature works in one static buffer). Every file and OpenSSL object is
// released on every path.
#pragma once

// Decrypts the S/MIME message `input_file` with the device's key into `temp_file`, then checks the signed
// message found there against the signers in `signer_cert_file` and writes its content to `output_file`. With
// `delete_inputs` non-zero `input_file` goes once it is decrypted, and `temp_file` after the signature check,
// whatever that gave; a failed decryption leaves both, `temp_file` empty.
// Returns 0, or -1: `output_file` must then not be used, it may hold content that nobody signed.
[[nodiscard]] int fota_decrypt_file(const char* private_key_file, const char* signer_cert_file,
                                    const char* input_file, const char* output_file, const char* temp_file,
                                    int delete_inputs);

// Decrypts an S/MIME enveloped-data message. Makes `output_file` anew, mode 0600, and leaves it partial after
// a failure. Returns 0 or -1.
[[nodiscard]] int decrypt_file(const char* private_key_file, const char* input_file, const char* output_file);

// Checks an S/MIME signed-data message and writes its content to `output_file`, made anew with mode 0600. The
// signers' certificates are those of `signer_cert_file` and, unless built with FOTA_STRICT_SIGNER, those that
// the message carries. Returns 0 or -1; after -1 the output may hold unverified content.
[[nodiscard]] int verify_signature(const char* signer_cert_file, const char* input_file,
                                   const char* output_file);

// Checks the detached RSA signature (PKCS#1 v1.5, SHA-256) in `signature_file`, at most 512 bytes, over
// `input_file`, with the SubjectPublicKeyInfo key in `public_key_file`. Returns 0 or -1.
[[nodiscard]] int fota_verify_digest_signature(const char* public_key_file, const char* input_file,
                                               const char* signature_file);

// OpenSSL password callback for the device key: puts the pass phrase, at most `size` bytes and no NUL, into
// `buffer` and returns the count. `rwflag` and `user_data` are not used.
[[nodiscard]] int pw_cb(char* buffer, int size, int rwflag, void* user_data);

// Empties this thread's OpenSSL error queue into a text that the caller frees with free(). Null without
// memory.
[[nodiscard]] char* ossl_err_as_string();
