#include "frame/errbuf.h"

#include <sagleme/sagleme.h>

#include <algorithm>
#include <sagleme/metalayer/errors.hpp>

#include "frame/context_state.h"

namespace metalayer {
namespace {

ErrBuffers::Buf* Made(std::unique_ptr<ErrBuffers::Buf>& slot) {
  if (slot == nullptr) slot = std::make_unique_for_overwrite<ErrBuffers::Buf>();
  return slot.get();
}

ErrBuffers::Buf& BufOf(unsigned long buf) { return *reinterpret_cast<ErrBuffers::Buf*>(buf); }

}  // namespace

ErrBuffers g_err_bufs;
constinit thread_local unsigned char tls_clear_errbuf = 0;

ErrBuffers::Buf* ErrBuffers::Find(unsigned long context) {
  if (ContextState* const state = ContextState::Find(context)) return Made(state->errors);
  std::lock_guard const lock(mutex_);
  return Made(buffers_[context]);
}

unsigned long errbuf_by_ctx(unsigned long context) {
  return reinterpret_cast<unsigned long>(g_err_bufs.Find(context));
}

unsigned long clean_errbuf_by_ctx(unsigned long context) {
  unsigned long const buf = errbuf_by_ctx(context);
  ErrBlt::buf_clear(buf);
  return buf;
}

unsigned long errbuf_blt_sz(unsigned long buf, char16_t const* text) {
  ErrBuffers::Buf& to = BufOf(buf);
  if (text == nullptr) return to.length;
  for (; *text != 0 && to.length < ErrBuffers::kMaxUnits; ++text) to.units[to.length++] = *text;
  return to.length;
}

void errbuf_blt(unsigned long buf, char16_t const* begin, char16_t const* end) {
  ErrBuffers::Buf& to = BufOf(buf);
  auto const count =
      std::min(static_cast<unsigned long>(end - begin), ErrBuffers::kMaxUnits - to.length);
  std::copy_n(begin, count, to.units + to.length);
  to.length += count;
}

void request_clear_errbuf() { tls_clear_errbuf = 1; }

bool is_errbuf_clear_requested() {
  bool const requested = tls_clear_errbuf != 0;
  tls_clear_errbuf = 0;
  return requested;
}

ErrBlt::ErrBlt() : buf_(errbuf_by_ctx(*TlsMetalayerContext::Current())) {}

void ErrBlt::buf_clear(unsigned long buf) { BufOf(buf).length = 0; }

void ErrBlt::clear() {
  if (is_errbuf_clear_requested()) buf_clear(buf_);
}

}  // namespace metalayer

char16_t const* lorv_metalayer_errbuf(uint64_t context) {
  metalayer::ErrBuffers::Buf* const buf = metalayer::g_err_bufs.Find(context);
  buf->units[buf->length] = 0;
  return buf->length == 0 ? nullptr : buf->units;
}
