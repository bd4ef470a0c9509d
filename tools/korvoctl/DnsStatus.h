// `korvoctl dns`: what the helper has published in its dynamic store and
// what it wrote for the resolver, read from its store directory (root only).
#pragma once

#include <cstdio>
#include <string>

namespace korvo::ctl {

// Prints the store's keys and the projection; returns the exit status.
int showDnsStatus(const std::string& runDirectory, std::FILE* out, std::FILE* err);

}  // namespace korvo::ctl
