// PGDPublicKeyAlgorithm: the key kinds a pin can be computed for.
//
// The configuration stores algorithms by these numbers, in the order configured; the pin validator
// hashes a certificate's key with the SubjectPublicKeyInfo header of each one in turn.
#pragma once

enum PGDPublicKeyAlgorithm : long {
  PGDPublicKeyAlgorithmRsa2048 = 0,
  PGDPublicKeyAlgorithmRsa4096 = 1,
  PGDPublicKeyAlgorithmEcDsaSecp256r1 = 2,
  PGDPublicKeyAlgorithmEcDsaSecp384r1 = 3,
};
