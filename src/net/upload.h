#pragma once
// Report upload to the build server's LogUpload service.

// Post the file at path (with the job fields) to LogURL. Prints what it
// reports; no result.
void UploadFile(const char* path);
