#pragma once
// Report upload to the build server's LogUpload service.

// Post the file at `path` as a multipart form to LogURL (driver/settings.h),
// together with the job fields TaskName (JobName), LogOwner (Owner),
// MachineLabel (Machine), PublicBuildJob and JobDateTime; unset fields are
// sent empty. The request line is always "POST /weftlane/LogUpload
// HTTP/1.1" whatever path LogURL carries; the "Host:" header is built by
// getHostPort (net/transport.h), so a LogURL without a port carries its path
// in that header.
//
// Prints, on standard output: "LogUrl=<LogURL>" first; then either "Could not
// open <path> for upload" or "Could not stat <path>" (nothing sent), or,
// after the post, the transport's error text followed by "\n" (an empty line
// after a successful post). The server's answer is read and ignored, so an
// error status counts as success. No result: callers never see a failure.
//
// The file is read as text in pieces of at most 9999 bytes (a line, or part
// of a long one); each piece is taken up to its first NUL byte, so what
// follows a NUL within a piece is not sent. The body is held once in memory.
void UploadFile(const char* path);
