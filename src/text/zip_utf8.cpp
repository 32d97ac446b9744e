// The zip library's file-function table over stdio, with archive paths taken
// as UTF-8 text (the file system's own encoding here).
#include <kestrel/textutil.h>

#include <minizip/ioapi.h>
#include <minizip/unzip.h>
#include <minizip/zip.h>

#include <cstdio>

namespace kestrel {

namespace {

voidpf ZCALLBACK openFile(voidpf, const char* path, int mode) {
  const char* how = nullptr;
  if ((mode & ZLIB_FILEFUNC_MODE_READWRITEFILTER) == ZLIB_FILEFUNC_MODE_READ)
    how = "rb";
  else if (mode & ZLIB_FILEFUNC_MODE_EXISTING)
    how = "r+b";
  else if (mode & ZLIB_FILEFUNC_MODE_CREATE)
    how = "wb";
  if (path == nullptr || how == nullptr) return nullptr;
  return std::fopen(path, how);
}

uLong ZCALLBACK readFile(voidpf, voidpf stream, void* buffer, uLong size) {
  return static_cast<uLong>(std::fread(buffer, 1, size, static_cast<FILE*>(stream)));
}

uLong ZCALLBACK writeFile(voidpf, voidpf stream, const void* buffer, uLong size) {
  return static_cast<uLong>(std::fwrite(buffer, 1, size, static_cast<FILE*>(stream)));
}

long ZCALLBACK tellFile(voidpf, voidpf stream) {
  return std::ftell(static_cast<FILE*>(stream));
}

long ZCALLBACK seekFile(voidpf, voidpf stream, uLong offset, int origin) {
  int whence = 0;
  switch (origin) {
    case ZLIB_FILEFUNC_SEEK_CUR:
      whence = SEEK_CUR;
      break;
    case ZLIB_FILEFUNC_SEEK_END:
      whence = SEEK_END;
      break;
    case ZLIB_FILEFUNC_SEEK_SET:
      whence = SEEK_SET;
      break;
    default:
      return -1;
  }
  // The result of fseek is not passed on: a seek counts as made.
  std::fseek(static_cast<FILE*>(stream), static_cast<long>(offset), whence);
  return 0;
}

int ZCALLBACK closeFile(voidpf, voidpf stream) {
  return std::fclose(static_cast<FILE*>(stream));
}

int ZCALLBACK errorFile(voidpf, voidpf stream) {
  return std::ferror(static_cast<FILE*>(stream));
}

}  // namespace

void populateFilefuncDef_UTF8(zlib_filefunc_def_s* table) {
  if (table == nullptr) return;
  table->zopen_file = openFile;
  table->zread_file = readFile;
  table->zwrite_file = writeFile;
  table->ztell_file = tellFile;
  table->zseek_file = seekFile;
  table->zclose_file = closeFile;
  table->zerror_file = errorFile;
  table->opaque = nullptr;
}

void* unzOpen_UTF8(const char* path) {
  zlib_filefunc_def table;
  populateFilefuncDef_UTF8(&table);
  return unzOpen2(path, &table);
}

void* zipOpen_UTF8(const char* path, int append) {
  zlib_filefunc_def table;
  populateFilefuncDef_UTF8(&table);
  return zipOpen2(path, append, nullptr, &table);
}

}  // namespace kestrel
