#include "MailCore/Transport/Certificate.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>

#include "MailCore/Common/MailError.h"

namespace mailcore {

std::vector<Certificate> Certificate::fromPEM(std::string_view pem) {
    const auto invalid = [] {
        return MailError::tls(TLSFailureKind::certificateInvalid, "certificate invalid");
    };
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(
        BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), &BIO_free);
    if (!bio) throw invalid();
    std::vector<Certificate> out;
    for (;;) {
        std::unique_ptr<X509, decltype(&X509_free)> cert(
            PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr), &X509_free);
        if (!cert) break;
        unsigned char* der = nullptr;
        const int length = i2d_X509(cert.get(), &der);
        if (length <= 0) throw invalid();
        out.push_back(Certificate{Bytes(der, der + length)});
        OPENSSL_free(der);
    }
    // Reading stops at the end of the text (no start line) or at a broken block.
    const unsigned long error = ERR_peek_last_error();
    const bool cleanEnd =
        ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE;
    ERR_clear_error();
    if (out.empty() || (error != 0 && !cleanEnd)) throw invalid();
    return out;
}

}  // namespace mailcore
