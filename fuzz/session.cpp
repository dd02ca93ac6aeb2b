// A server that sends anything, and what a client asks before it searches.

#include "fuzzed_server.h"
#include "invariant.h"
#include "process_setup.h"
#include <ldap/session.h>

#include <optional>

namespace tavo::fuzz {

namespace {

/// How one input is to be read: its first byte.
struct Plan
{
    explicit Plan(unsigned char flags)
        : isRaw((flags & 1U) != 0)
        , comesInSingleBytes((flags & 2U) != 0)
        , startsTls((flags & 4U) != 0)
        , isAnonymous((flags & 8U) != 0)
        , asksForVendorFirst((flags & 16U) != 0)
    {}

    bool isRaw;
    bool comesInSingleBytes;
    bool startsTls;
    bool isAnonymous;
    bool asksForVendorFirst;
};

/// Whether it succeeded; any exception other than the library's own ends the process.
template <class Operation>
bool succeeds(Operation operation)
{
    try {
        operation();
        return true;
    } catch (const ldap::InvalidCredentialsError& error) {
        require(error.ldapCode == LDAP_INVALID_CREDENTIALS, "a refused name or password has its own code");
    } catch (const ldap::BaseError& error) {
        require(error.ldapCode != LDAP_SUCCESS, "an error has a code");
        require(!error.message().isEmpty(), "an error has a text");
    }
    return false;
}

void checkVendor(const ldap::Session& session, const Bytes& said)
{
    const ldap::VendorDefaults vendor = session.detectLdapVendor();
    if (vendor.loginAttribute == QLatin1String("sAMAccountName")) {
        require(said.find("forestFunctionality") != Bytes::npos, "Active Directory is one that says so");
        return;
    }
    require(vendor.loginAttribute == QLatin1String("uid"), "what isn't Active Directory is OpenLDAP");
}

void checkIdentity(ldap::Session& session, const Bytes& said)
{
    const QString identity = session.whoAmI();
    const bool isAsSent = said.find(identity.toStdString()) != Bytes::npos;
    const bool isRepaired = identity.contains(QChar::ReplacementCharacter);
    require(isAsSent || isRepaired || identity == QLatin1String("anonymous"), "one is who the server says");
}

void bind(ldap::Session& session, bool isAnonymous, const Bytes& said)
{
    try {
        session.bind(
            isAnonymous ? QString() : QStringLiteral("cn=a"), isAnonymous ? QString() : QStringLiteral("b"));
    } catch (const ldap::InvalidCredentialsError&) {
        require(said.find(static_cast<char>(LDAP_INVALID_CREDENTIALS)) != Bytes::npos,
            "the server refuses, nobody else");
        throw;
    }
}

void run(const Plan& plan, Bytes messages)
{
    const Bytes said = messages;
    FuzzedServer server({std::move(messages), plan.isRaw, plan.comesInSingleBytes});
    std::optional<ldap::Session> session;
    if (!succeeds([&] {
            session.emplace(utils::Url(QStringLiteral("ldap://directory.test")), plan.startsTls, true);
        })) {
        require(plan.startsTls, "a session that doesn't connect can be made");
        return;
    }
    if (plan.asksForVendorFirst) {
        checkVendor(*session, said);
    }
    succeeds([&] { bind(*session, plan.isAnonymous, said); });
    succeeds([&] { checkIdentity(*session, said); });
    checkVendor(*session, said);
    require(server.understands(), "every request is well-formed");
}

} // namespace

} // namespace tavo::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    tavo::fuzz::setUpProcess();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // The second byte is unused: both targets that talk to a server share the mutator, and may share inputs.
    constexpr std::size_t kPlanSize = 2;
    if (size < kPlanSize) {
        return -1;
    }
    const char* text = reinterpret_cast<const char*>(data);
    tavo::fuzz::run(tavo::fuzz::Plan(data[0]), {text + kPlanSize, size - kPlanSize});
    return 0;
}
