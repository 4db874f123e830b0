#ifndef SAGLEME_SRC_FRAME_ERRBUF_H
#define SAGLEME_SRC_FRAME_ERRBUF_H

// The failure texts: one fixed buffer per context that was ever used. It ends with the context if
// the kernel reports that, else with the process.
//
// The lock guards the map alone. A buffer is read and written outside it, by the one thread that is
// in its context.

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>

namespace metalayer {

class ErrBuffers {
 public:
  static constexpr std::size_t kMaxUnits = 7168;

  struct Buf {
    char16_t units[kMaxUnits + 1];  // room for a terminator behind a full text
    unsigned long length = 0;
  };

  // The buffer of `context`, made empty on first use.
  Buf* Find(unsigned long context);

 private:
  std::mutex mutex_;
  std::map<unsigned long, std::unique_ptr<Buf>> buffers_;
};

extern ErrBuffers g_err_bufs;

}  // namespace metalayer

#endif
