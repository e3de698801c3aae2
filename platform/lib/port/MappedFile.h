// MappedFile.h - a file shared with the page cache through a mapping, for
// state that must outlive the process: a store into it survives any death of
// the process short of a crash of the machine.
//
// The file is locked (flock) while its owner lives, so that only a dead
// owner's file is ever opened by another; it is created with mode 0600,
// exclusively and without following a link, and its blocks are allocated up
// front, so that a full disk later can never turn a store into SIGBUS.
#ifndef TOVI_PORT_MAPPEDFILE_H
#define TOVI_PORT_MAPPEDFILE_H

#include <cstddef>
#include <string>

namespace toviport {

struct MappedFile {
  int fd = -1;
  void* base = nullptr;
  std::size_t size = 0;
};

// Creates path with size bytes, all allocated and mapped, locked for the
// caller: 0, or the errno of the step that failed (nothing is left then).
int CreateMappedFile(const std::string& path, std::size_t size, MappedFile& out);
// Maps an existing file whose owner is gone: 0, EWOULDBLOCK while its owner
// still holds it, or the errno of the step that failed.
int OpenDeadMappedFile(const std::string& path, MappedFile& out);
// Memory of size bytes laid out like a mapped file but backed by no file
// (fd stays -1), for a writer whose directory cannot take one: 0 or the
// errno.
int CreateMemoryMapping(std::size_t size, MappedFile& out);
// Unmaps and closes (the lock goes with it); the file stays.
void CloseMappedFile(MappedFile& file);

}  // namespace toviport

#endif
