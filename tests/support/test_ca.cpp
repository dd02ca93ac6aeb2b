#include "test_ca.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <stdexcept>

namespace tavo::test {
namespace {

using namespace std::chrono_literals;

template <auto free>
struct Free
{
    template <typename T>
    void operator()(T* object) const
    {
        free(object);
    }
};
using Key = std::unique_ptr<EVP_PKEY, Free<&EVP_PKEY_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Free<&EVP_PKEY_CTX_free>>;
using Certificate = std::unique_ptr<X509, Free<&X509_free>>;
using RevocationList = std::unique_ptr<X509_CRL, Free<&X509_CRL_free>>;
using Time = std::unique_ptr<ASN1_TIME, Free<&ASN1_TIME_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, Free<&X509_EXTENSION_free>>;
using File = std::unique_ptr<std::FILE, Free<&std::fclose>>;

void check(bool good, const char* what)
{
    if (!good)
        throw std::runtime_error(std::string("cannot make a test certificate: ") + what);
}

Key newKey()
{
    const KeyContext context(EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr));
    EVP_PKEY* key = nullptr;
    check(EVP_PKEY_keygen_init(context.get()) > 0 &&
              EVP_PKEY_CTX_set_ec_paramgen_curve_nid(context.get(), NID_X9_62_prime256v1) > 0 &&
              EVP_PKEY_keygen(context.get(), &key) > 0,
        "key");
    return Key(key);
}

void addExtension(X509& certificate, int nid, const std::string& value)
{
    const Extension extension(X509V3_EXT_conf_nid(nullptr, nullptr, nid, value.c_str()));
    check(extension && X509_add_ext(&certificate, extension.get(), -1) > 0, value.c_str());
}

Certificate newCertificate(const std::string& name, EVP_PKEY& key, long serial,
    std::chrono::seconds notBefore, std::chrono::seconds notAfter)
{
    Certificate certificate(X509_new());
    check(certificate != nullptr, "certificate");
    X509_set_version(certificate.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), static_cast<long>(notBefore.count()));
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), static_cast<long>(notAfter.count()));
    X509_set_pubkey(certificate.get(), &key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_UTF8,
        reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
    return certificate;
}

void sign(X509& certificate, const X509& issuer, EVP_PKEY& issuersKey)
{
    X509_set_issuer_name(&certificate, X509_get_subject_name(&issuer));
    check(X509_sign(&certificate, &issuersKey, EVP_sha256()) > 0, "signature");
}

void writeCertificate(const std::filesystem::path& path, X509& certificate)
{
    const File file(std::fopen(path.c_str(), "w"));
    check(file && PEM_write_X509(file.get(), &certificate) > 0, path.c_str());
}

void writeKey(const std::filesystem::path& path, EVP_PKEY& key)
{
    const File file(std::fopen(path.c_str(), "w"));
    check(file && PEM_write_PrivateKey(file.get(), &key, nullptr, nullptr, 0, nullptr, nullptr) > 0,
        path.c_str());
}

Certificate readCertificate(const std::filesystem::path& path)
{
    const File file(std::fopen(path.c_str(), "r"));
    Certificate certificate(file ? PEM_read_X509(file.get(), nullptr, nullptr, nullptr) : nullptr);
    check(certificate != nullptr, path.c_str());
    return certificate;
}

Time fromNow(std::chrono::seconds offset)
{
    return Time(X509_gmtime_adj(nullptr, static_cast<long>(offset.count())));
}

void addRevoked(X509_CRL& list, const X509& certificate)
{
    X509_REVOKED* const entry = X509_REVOKED_new();
    check(entry != nullptr && X509_CRL_add0_revoked(&list, entry) > 0, "revocation");
    X509_REVOKED_set_serialNumber(entry, const_cast<ASN1_INTEGER*>(X509_get0_serialNumber(&certificate)));
    X509_REVOKED_set_revocationDate(entry, fromNow(-1h).get());
}

std::string join(const std::vector<std::string>& parts)
{
    std::string result;
    for (const std::string& part : parts)
        result += (result.empty() ? "" : ",") + part;
    return result;
}

} // namespace

struct TestCa::Identity
{
    Key key;
    Certificate certificate;
};

TestCa::TestCa(const std::string& name)
{
    Key key = newKey();
    Certificate certificate = newCertificate(name, *key, 1, -48h, 48h);
    addExtension(*certificate, NID_basic_constraints, "critical,CA:TRUE");
    addExtension(*certificate, NID_key_usage, "critical,keyCertSign,cRLSign");
    sign(*certificate, *certificate, *key);
    writeCertificate(this->certificate(), *certificate);
    m_identity = std::make_unique<Identity>(Identity{std::move(key), std::move(certificate)});
}

TestCa::~TestCa() = default;

std::filesystem::path TestCa::certificate() const { return m_directory.path() / "ca.pem"; }

ServerCertificate TestCa::issue(const CertificateOptions& options)
{
    const long serial = ++m_issued;
    const Key key = newKey();
    const Certificate certificate =
        newCertificate(options.commonName, *key, serial, options.notBefore, options.notAfter);
    addExtension(*certificate, NID_basic_constraints, "critical,CA:FALSE");
    addExtension(*certificate, NID_key_usage, "critical,digitalSignature");
    addExtension(*certificate, NID_ext_key_usage, options.extendedKeyUsage);
    if (!options.subjectAltNames.empty())
        addExtension(*certificate, NID_subject_alt_name, join(options.subjectAltNames));
    if (options.isSelfSigned)
        sign(*certificate, *certificate, *key);
    else
        sign(*certificate, *m_identity->certificate, *m_identity->key);

    const std::filesystem::path stem = m_directory.path() / ("server-" + std::to_string(serial));
    const ServerCertificate result{stem.string() + ".pem", stem.string() + ".key"};
    writeCertificate(result.certificate, *certificate);
    writeKey(result.key, *key);
    return result;
}

std::filesystem::path TestCa::revoke(const std::vector<ServerCertificate>& revoked)
{
    const RevocationList list(X509_CRL_new());
    check(list != nullptr, "revocation list");
    X509_CRL_set_version(list.get(), 1);
    X509_CRL_set_issuer_name(list.get(), X509_get_subject_name(m_identity->certificate.get()));
    X509_CRL_set1_lastUpdate(list.get(), fromNow(-24h).get());
    X509_CRL_set1_nextUpdate(list.get(), fromNow(24h).get());
    for (const ServerCertificate& each : revoked)
        addRevoked(*list, *readCertificate(each.certificate));
    X509_CRL_sort(list.get());
    check(X509_CRL_sign(list.get(), m_identity->key.get(), EVP_sha256()) > 0, "signature");

    const std::filesystem::path path = m_directory.path() / ("revoked-" + std::to_string(++m_made) + ".pem");
    const File file(std::fopen(path.c_str(), "w"));
    check(file && PEM_write_X509_CRL(file.get(), list.get()) > 0, path.c_str());
    return path;
}

std::filesystem::path TestCa::makeDirectory(const std::optional<std::filesystem::path>& revocations)
{
    const std::filesystem::path directory = m_directory.path() / ("directory-" + std::to_string(++m_made));
    std::filesystem::create_directory(directory);
    char hash[9] = {};
    std::snprintf(hash, sizeof hash, "%08lx", X509_subject_name_hash(m_identity->certificate.get()));
    std::filesystem::copy_file(certificate(), directory / (std::string(hash) + ".0"));
    if (revocations)
        std::filesystem::copy_file(*revocations, directory / (std::string(hash) + ".r0"));
    return directory;
}

ServerCertificate TestCa::issueExpired() { return issue({.notBefore = -24h, .notAfter = -1h}); }

ServerCertificate TestCa::issueNotYetValid() { return issue({.notBefore = 1h, .notAfter = 24h}); }

ServerCertificate TestCa::issueForOtherHost()
{
    return issue({.subjectAltNames = {"DNS:other.example.test"}});
}

ServerCertificate TestCa::issueSelfSigned() { return issue({.isSelfSigned = true}); }

} // namespace tavo::test
