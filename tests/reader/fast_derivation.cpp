// Key derivations that are remembered, for test programs that open the same sealed images thousands of times: the
// linker sends libcrypto's call here (--wrap). It changes nothing of what comes out.

#include <map>
#include <mutex>
#include <string>
#include <tuple>

#include <openssl/evp.h>

extern "C" int __real_PKCS5_PBKDF2_HMAC(const char* password, int passwordLength, const unsigned char* salt,
                                        int saltLength, int iterations, const EVP_MD* digest, int length,
                                        unsigned char* out);
extern "C" int __wrap_PKCS5_PBKDF2_HMAC(const char* password, int passwordLength, const unsigned char* salt,
                                        int saltLength, int iterations, const EVP_MD* digest, int length,
                                        unsigned char* out);

int __wrap_PKCS5_PBKDF2_HMAC(const char* password, int passwordLength, const unsigned char* salt, int saltLength,
                             int iterations, const EVP_MD* digest, int length, unsigned char* out) {
    static std::mutex mutex;
    static std::map<std::tuple<std::string, std::string, int>, std::string> known;
    const std::lock_guard lock(mutex);
    const std::tuple request(std::string(password, static_cast<size_t>(passwordLength)),
                             std::string(reinterpret_cast<const char*>(salt), static_cast<size_t>(saltLength)),
                             iterations);
    auto found = known.find(request);
    if (found == known.end()) {
        if (__real_PKCS5_PBKDF2_HMAC(password, passwordLength, salt, saltLength, iterations, digest, length, out) !=
            1) {
            return 0;
        }
        found =
            known.emplace(request, std::string(reinterpret_cast<const char*>(out), static_cast<size_t>(length))).first;
    }
    found->second.copy(reinterpret_cast<char*>(out), static_cast<size_t>(length));
    return 1;
}
