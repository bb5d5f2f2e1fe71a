#pragma once
// Content digest of a file: the message-digest procedure carried out on
// 64-bit words, rendered as 32 lowercase hex characters of which only the
// first 8 vary.

#include <cstdint>
#include <cstdio>

// Digest of everything from the stream's position to its end into out;
// 0, or -1 when the stream reports a read error.
int mdfile(FILE* stream, unsigned char out[16]);
// Open path, digest it, close; -1 (out untouched) when it cannot be opened
// or examined, else mdfile's result.
int md_filename(const char* path, unsigned char out[16]);
// The 16 bytes as 32 "%02x" characters into out (33 bytes); returns out.
char* print_digest(const unsigned char digest[16], char* out);
