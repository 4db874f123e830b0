#include <sagleme/statuses.h>

#include <sagleme/metalayer/context.hpp>

#include "frame/traps.h"

namespace metalayer {
namespace {

constexpr unsigned int kBrokenCatalogue = SAGLEME_BROKEN_CATALOGUE;

}  // namespace

constinit thread_local unsigned long TlsMetalayerContext::tls_metactx_ = 0;

unsigned long* TlsMetalayerContext::Current() { return &tls_metactx_; }

void FatalError() { raise_unexpected_except(kBrokenCatalogue); }

}  // namespace metalayer
