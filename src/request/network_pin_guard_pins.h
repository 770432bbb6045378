// The program's pins: the one list of public-key pins that ZRBNetworkPinGuard puts under every API
// domain it pins. Each is the base64 SHA-256 of a SubjectPublicKeyInfo (`openssl x509 -pubkey
// -noout | openssl pkey -pubin -outform der | openssl dgst -sha256 -binary | base64`) of a key
// that may sign the service's TLS certificates: the keys of the issuing CAs in use and spares held
// back for rotation. This list is deployment data: a deployment replaces these values with the
// hashes of its own keys (keep at least two, as enforcement requires). A program may also replace
// them at run time with ZRBNetworkPinGuard::setPublicKeyHashes.
#pragma once

#include <array>
#include <string_view>

inline constexpr std::array<std::string_view, 7> kZRBNetworkPinGuardPublicKeyHashes = {
    "8AmJwLwAIa0fsjVqqRaMKZHcIuryP9Hko7SbDLOK3Lk=", "jHHQWG/rwMyT9GpDxFAVa0vZFlO9Sz+JkDcvBPUwMps=",
    "KwGOhXBizkIqk3FFUjjQLIBFvuocw/4fi6RIJhKHfs0=", "Q4YZ2VEjLfAJSVmgODk9s7fDy016P61HAPy/0IATrB8=",
    "X+Kll63yaN7GNk1nPiCzcX4vGH0J9WjcF0wqGj6PED4=", "NuruXL2pI8TGJNBQmY67EB2GIXLaMH0hx6IJSjWykUg=",
    "uYsHUMBMUOTzOo+yxe9QHZhhNFZc1eeXHqteByUsndc=",
};
