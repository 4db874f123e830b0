#ifndef SAGLEME_TESTS_SUPPORT_PRECOMPILED_H
#define SAGLEME_TESTS_SUPPORT_PRECOMPILED_H

// The headers that nearly every test begins with, compiled once a group. Files include what they
// use all the same.

#include <gtest/gtest.h>
#include <lscoredb/host.h>
#include <sagleme/sagleme.h>

#include <sagleme/metalayer.hpp>

#endif
