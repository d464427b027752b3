// A stream of the C library that closes itself.
#pragma once

#include <cstdio>
#include <memory>

struct CloseStream {
    void operator()(FILE* stream) const { std::fclose(stream); }
};
using FileStream = std::unique_ptr<FILE, CloseStream>;
