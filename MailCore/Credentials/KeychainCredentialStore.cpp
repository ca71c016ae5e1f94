#if defined(__APPLE__)

#include <CoreFoundation/CoreFoundation.h>
#include <Security/Security.h>

#include "MailCore/Common/MailError.h"
#include "MailCore/Credentials/KeyringCredentialStores.h"

namespace mailcore {
namespace {

struct CFRelease {
    void operator()(CFTypeRef ref) const {
        if (ref) ::CFRelease(ref);
    }
};
using CFPtr = std::unique_ptr<const void, CFRelease>;

CFStringRef cfString(const std::string& text) {
    return CFStringCreateWithBytes(nullptr, reinterpret_cast<const UInt8*>(text.data()),
                                   static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false);
}

// The item of one secret: service, account "<account>/<kind>".
CFMutableDictionaryRef query(const std::string& account, std::optional<CredentialKind> kind) {
    CFMutableDictionaryRef q = CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                                                         &kCFTypeDictionaryValueCallBacks);
    CFDictionarySetValue(q, kSecClass, kSecClassGenericPassword);
    CFPtr service(cfString(std::string(credentialService)));
    CFDictionarySetValue(q, kSecAttrService, service.get());
    if (kind) {
        CFPtr name(cfString(account + "/" + std::string(rawValue(*kind))));
        CFDictionarySetValue(q, kSecAttrAccount, name.get());
    }
    return q;
}

}  // namespace

std::optional<std::string> KeychainCredentialStore::secret(const std::string& account,
                                                           CredentialKind kind) {
    std::lock_guard<std::mutex> guard(lock_);
    CFPtr q(query(account, kind));
    auto* dict = (CFMutableDictionaryRef)q.get();
    CFDictionarySetValue(dict, kSecReturnData, kCFBooleanTrue);
    CFDictionarySetValue(dict, kSecMatchLimit, kSecMatchLimitOne);
    CFTypeRef result = nullptr;
    if (SecItemCopyMatching(dict, &result) != errSecSuccess || !result) return std::nullopt;
    CFPtr data(result);
    const auto* bytes = CFDataGetBytePtr((CFDataRef)result);
    return std::string(reinterpret_cast<const char*>(bytes),
                       static_cast<std::size_t>(CFDataGetLength((CFDataRef)result)));
}

void KeychainCredentialStore::setSecret(const std::string& account, CredentialKind kind,
                                        const std::string& secret) {
    std::lock_guard<std::mutex> guard(lock_);
    CFPtr q(query(account, kind));
    auto* dict = (CFMutableDictionaryRef)q.get();
    SecItemDelete(dict);
    CFPtr data(CFDataCreate(nullptr, reinterpret_cast<const UInt8*>(secret.data()),
                            static_cast<CFIndex>(secret.size())));
    CFDictionarySetValue(dict, kSecValueData, data.get());
    CFDictionarySetValue(dict, kSecAttrAccessible, kSecAttrAccessibleWhenUnlockedThisDeviceOnly);
    const OSStatus status = SecItemAdd(dict, nullptr);
    if (status != errSecSuccess) {
        throw MailError::storage(
            StorageFailureKind::ioError,
            "the keychain did not store the secret (" + std::to_string(status) + ")");
    }
}

void KeychainCredentialStore::removeAll(const std::string& account) {
    std::lock_guard<std::mutex> guard(lock_);
    for (auto kind :
         {CredentialKind::password, CredentialKind::oauthRefreshToken, CredentialKind::apiKey}) {
        CFPtr q(query(account, kind));
        SecItemDelete((CFMutableDictionaryRef)q.get());
    }
}

CredentialStoreChoice chooseCredentialStore(const std::filesystem::path&) {
    CredentialStoreChoice choice;
    choice.store = std::make_unique<KeychainCredentialStore>();
    return choice;
}

}  // namespace mailcore

#endif
