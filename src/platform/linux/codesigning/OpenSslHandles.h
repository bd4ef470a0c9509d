// Owning handles for the OpenSSL objects that code signing uses, and the
// text of OpenSSL's error queue.
#pragma once

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <memory>
#include <string>

namespace korvo::platform::codesign {

template <auto Free>
struct OpenSslDeleter {
    template <typename T>
    void operator()(T* p) const { Free(p); }
};

using BioPtr = std::unique_ptr<BIO, OpenSslDeleter<BIO_free_all>>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, OpenSslDeleter<CMS_ContentInfo_free>>;
using X509Ptr = std::unique_ptr<X509, OpenSslDeleter<X509_free>>;
using PKeyPtr = std::unique_ptr<EVP_PKEY, OpenSslDeleter<EVP_PKEY_free>>;
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, OpenSslDeleter<EVP_MD_CTX_free>>;
using MdPtr = std::unique_ptr<EVP_MD, OpenSslDeleter<EVP_MD_free>>;
using StorePtr = std::unique_ptr<X509_STORE, OpenSslDeleter<X509_STORE_free>>;
using StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, OpenSslDeleter<X509_STORE_CTX_free>>;

inline void freeX509Stack(STACK_OF(X509)* s) { sk_X509_pop_free(s, X509_free); }
using X509StackPtr = std::unique_ptr<STACK_OF(X509), OpenSslDeleter<freeX509Stack>>;

// Empties OpenSSL's error queue of this thread and returns its entries, "; "
// between them ("" when it held none).
std::string takeOpenSslErrors();

}  // namespace korvo::platform::codesign
