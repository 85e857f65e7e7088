#pragma once
// Fixed RSA private keys (traditional PEM) used instead of generating new ones.

namespace devsim {

extern const char* const kFixedRootKey;
extern const char* const kFixedHostKey;
// Every device uses this key unless its profile asks for one of its own.
extern const char* const kFixedDeviceKey;

} // namespace devsim
