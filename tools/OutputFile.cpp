// Replacing output files whole.
#include "OutputFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "Errors.h"

namespace xplpm {

void replaceFile(const std::string& path, std::string_view bytes) {
  const std::string temporary = path + ".tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out.flush()) badInput(temporary, std::string("cannot write the file: ") + std::strerror(errno));
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0)
    badInput(path, std::string("cannot replace the file: ") + std::strerror(errno));
}

void checkReplaceable(const std::string& path) {
  const std::string temporary = path + ".tmp";
  std::ofstream out(temporary, std::ios::binary | std::ios::app);
  if (!out) badInput(path, std::string("the file cannot be written: ") + std::strerror(errno));
  out.close();
  std::remove(temporary.c_str());
}

}  // namespace xplpm
