#include "storage/TagFileFormat.h"

#include <openssl/evp.h>

#include <cstring>
#include <string_view>

namespace chronotick {

namespace ctbin {

namespace {

// The block signature marks files written by this library; the key pair is
// fixed and public, derived from a text so that every build agrees on it.
struct SignatureKeys {
  EVP_PKEY *private_key = nullptr;
  EVP_PKEY *public_key = nullptr;
  EVP_MD *sha1 = nullptr;

  SignatureKeys() {
    static const char seed_text[] = "chronotick ctbin block signature v1";
    unsigned char seed[32];
    unsigned int seed_size = 0;
    if (EVP_Digest(seed_text, sizeof(seed_text) - 1, seed, &seed_size, EVP_sha256(), nullptr) != 1 ||
        seed_size != sizeof(seed))
      return;
    private_key = EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed, sizeof(seed));
    unsigned char raw_public[32];
    std::size_t public_size = sizeof(raw_public);
    if (private_key && EVP_PKEY_get_raw_public_key(private_key, raw_public, &public_size) == 1)
      public_key = EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, raw_public, public_size);
    sha1 = EVP_MD_fetch(nullptr, "SHA1", nullptr);
  }
  ~SignatureKeys() {
    EVP_PKEY_free(private_key);
    EVP_PKEY_free(public_key);
    EVP_MD_free(sha1);
  }
};

// Never destroyed: workers of a tagger still alive at exit may seal or check
// a block after static destruction has begun.
const SignatureKeys &keys() {
  static const SignatureKeys *instance = new SignatureKeys;
  return *instance;
}

// One digest context per thread, reused for every block.
struct DigestContext {
  EVP_MD_CTX *context = EVP_MD_CTX_new();
  ~DigestContext() { EVP_MD_CTX_free(context); }
};

EVP_MD_CTX *threadContext() {
  thread_local DigestContext holder;
  EVP_MD_CTX_reset(holder.context);
  return holder.context;
}

} // namespace

void prepareIntegrity() {
  (void)keys();
}

std::string partName(const std::string &base_name, std::uint32_t part_index) {
  const std::string_view extension = FILE_EXTENSION;
  std::string name = base_name;
  if (name.size() > extension.size() && name.compare(name.size() - extension.size(), extension.size(), extension) == 0)
    name.resize(name.size() - extension.size());
  if (part_index > 0) {
    name += '.';
    name += std::to_string(part_index);
  }
  name += extension;
  return name;
}

bool sha1Field(const void *data, std::size_t size, std::uint8_t (&field)[32]) {
  std::memset(field, 0, sizeof(field));
  EVP_MD_CTX *context = threadContext();
  const EVP_MD *md = keys().sha1;
  unsigned int length = 0;
  return context && md && EVP_DigestInit_ex(context, md, nullptr) == 1 && EVP_DigestUpdate(context, data, size) == 1 &&
         EVP_DigestFinal_ex(context, field, &length) == 1 && length == 20;
}

bool signHash(const std::uint8_t (&hash)[32], std::uint8_t (&signature)[64]) {
  EVP_MD_CTX *context = threadContext();
  EVP_PKEY *key = keys().private_key;
  std::size_t length = sizeof(signature);
  return context && key && EVP_DigestSignInit(context, nullptr, nullptr, nullptr, key) == 1 &&
         EVP_DigestSign(context, signature, &length, hash, sizeof(hash)) == 1 && length == sizeof(signature);
}

bool verifyHash(const std::uint8_t (&hash)[32], const std::uint8_t (&signature)[64]) {
  EVP_MD_CTX *context = threadContext();
  EVP_PKEY *key = keys().public_key;
  return context && key && EVP_DigestVerifyInit(context, nullptr, nullptr, nullptr, key) == 1 &&
         EVP_DigestVerify(context, signature, sizeof(signature), hash, sizeof(hash)) == 1;
}

} // namespace ctbin

} // namespace chronotick
