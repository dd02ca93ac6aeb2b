#include "call_test.h"
#include "support/assertion_capture.h"
#include "support/log_capture.h"
#include "support/scripted_server.h"
#include "support/temporary_directory.h"
#include <ldap/private/client_library.h>
#include <ldap/private/handle.h>
#include <tavo_utils/formatter.h>

#include <gmock/gmock.h>
#include <openssl/err.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace tavo::test {

namespace {

/// What was in the memory that was wiped while one of these lives, in order. There is one at a time.
class Wipes
{
public:
    Wipes() { wiped() = &m_texts; }
    ~Wipes() { wiped() = nullptr; }
    Wipes(const Wipes&) = delete;
    Wipes& operator=(const Wipes&) = delete;

    const std::vector<Bytes>& texts() const { return m_texts; }

    static std::vector<Bytes>*& wiped()
    {
        static std::vector<Bytes>* texts = nullptr;
        return texts;
    }

private:
    std::vector<Bytes> m_texts;
};

} // namespace

extern "C" {
void __real_explicit_bzero(void* memory, std::size_t size);
void __wrap_explicit_bzero(void* memory, std::size_t size);

void __wrap_explicit_bzero(void* memory, std::size_t size)
{
    if (Wipes::wiped() != nullptr)
        Wipes::wiped()->emplace_back(static_cast<const char*>(memory), size);
    __real_explicit_bzero(memory, size);
}
}

namespace {

using ldap::BaseError;
using ldap::InvalidCredentialsError;
using ldap::Session;
using ldap::TlsError;

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr int kCertificateVerifyFailed = 134;

/// Has the call fail, as a failing handshake does, with an entry in OpenSSL's queue.
template <class... A>
void failWithQueue(CallRecorder& recorder, int (*function)(A...), int code, int library)
{
    recorder.replace(function, [=](A...) {
        ERR_raise(library, kCertificateVerifyFailed);
        errno = EPROTO;
        return code;
    });
}

std::string setOption(int option, const std::string& value)
{
    return "ldap_set_option(invalue=" + value + ", ld=handle 1, option=" + std::to_string(option) + ") = 0";
}

/// What the host has configured for TLS: texts, numbers, and bytes where an option has those.
using HostsOptions = std::map<int, std::variant<std::string, int>>;

const HostsOptions everyHostsOption{{LDAP_OPT_X_TLS_CACERTFILE, "ca.pem"}, {LDAP_OPT_X_TLS_CACERTDIR, "cas"},
    {LDAP_OPT_X_TLS_CACERT, Bytes("c\0a", 3)}, {LDAP_OPT_X_TLS_CRLFILE, "crl.pem"},
    {LDAP_OPT_X_TLS_CERTFILE, "own.pem"}, {LDAP_OPT_X_TLS_KEYFILE, "own.key"},
    {LDAP_OPT_X_TLS_CERT, Bytes("own\0", 4)}, {LDAP_OPT_X_TLS_KEY, Bytes("\0key", 4)},
    {LDAP_OPT_X_TLS_CIPHER_SUITE, "SUITE"}, {LDAP_OPT_X_TLS_PROTOCOL_MIN, LDAP_OPT_X_TLS_PROTOCOL_TLS1_2},
    {LDAP_OPT_X_TLS_PROTOCOL_MAX, LDAP_OPT_X_TLS_PROTOCOL_TLS1_3}, {LDAP_OPT_X_TLS_ECNAME, "P-256"}};

bool holdsBytes(int option)
{
    return option == LDAP_OPT_X_TLS_CACERT || option == LDAP_OPT_X_TLS_CERT || option == LDAP_OPT_X_TLS_KEY;
}

/// Like the client library's function for the global options.
int getHostsOption(const HostsOptions& options, int option, void* value)
{
    const auto found = options.find(option);
    if (option == LDAP_OPT_X_TLS_PROTOCOL_MIN || option == LDAP_OPT_X_TLS_PROTOCOL_MAX)
        *static_cast<int*>(value) = found == options.end() ? 0 : std::get<int>(found->second);
    else if (holdsBytes(option) && found == options.end())
        *static_cast<berval*>(value) = {};
    else if (holdsBytes(option))
        CallRecorder::real(ber_mem2bv)(std::get<std::string>(found->second).data(),
            std::get<std::string>(found->second).size(), 1, static_cast<berval*>(value));
    else if (found == options.end())
        *static_cast<char**>(value) = nullptr;
    else
        *static_cast<char**>(value) =
            CallRecorder::real(ber_strdup)(std::get<std::string>(found->second).c_str());
    return LDAP_OPT_SUCCESS;
}

void configure(CallRecorder& recorder, const HostsOptions& options)
{
    recorder.replace(ldap_get_option, [=](LDAP* ld, int option, void* value) {
        if (ld != nullptr || option == LDAP_OPT_DEBUG_LEVEL)
            return CallRecorder::real(ldap_get_option)(ld, option, value);
        return getHostsOption(options, option, value);
    });
}

/// What is set to give a context the host's options that have nothing to do with verification.
std::vector<std::string> settingOfUnconcernedOptions()
{
    return {setOption(0x6004, "\"own.pem\""), setOption(0x6005, "\"own.key\""),
        setOption(0x6017, "\"own\\00\""), setOption(0x6018, "\"\\00key\""), setOption(0x6008, "\"SUITE\""),
        setOption(0x6007, "771"), setOption(0x601b, "772"), setOption(0x6012, "\"P-256\"")};
}

TEST(SessionCreation, MakesNoCopies)
{
    EXPECT_FALSE(std::is_copy_constructible_v<Session>);
    EXPECT_FALSE(std::is_copy_assignable_v<Session>);
}

TEST(SessionCreation, LogsItsUrl)
{
    const LogCapture log;
    const Session session(plainUrl(), false, false);

    EXPECT_THAT(log.texts(log::Level::debug), ElementsAre("Creating for ldap://127.0.0.1:1"));
}

TEST(SessionCreation, ClearsTheErrorQueueBeforeItAsksForAHandle)
{
    CallRecorder recorder;
    {
        const Session session(plainUrl(), false, false);
    }

    EXPECT_THAT(recorder.names(),
        ElementsAre("ldap_is_ldaps_url", "ERR_clear_error", "ldap_initialize", "ldap_get_option",
            "ber_sockbuf_add_io", "ber_sockbuf_add_io", "ldap_set_urllist_proc", "ldap_set_option",
            "ldap_set_option", "ldap_set_option", "ldap_get_option", "ldap_set_option", "ldap_destroy"));
    EXPECT_EQ(recorder.only("ldap_initialize").text("uri"), "ldap://127.0.0.1:1");
}

TEST(SessionCreation, SetsFourOptionsOnItsOwnHandleAndNoOther)
{
    CallRecorder recorder;
    const Session session(plainUrl(), false, false);

    EXPECT_THAT(described(recorder.calls("ldap_set_option")),
        ElementsAre(
            setOption(0x11, "3"), setOption(0x08, "null"), setOption(0x6006, "1"), setOption(0x600f, "0")));
}

TEST(SessionCreation, WaivesTheCertificateOnlyOnRequestAndBeforeTheTlsContext)
{
    for (const auto& url : {plainUrl(), secureUrl()}) {
        CallRecorder recorder;
        configure(recorder, {});
        {
            const Session session(url, false, true);
        }

        EXPECT_THAT(described(recorder.calls("ldap_set_option")),
            ElementsAre(setOption(0x11, "3"), setOption(0x08, "null"), setOption(0x6006, "0"),
                setOption(0x600f, "0")));
    }
}

TEST(SessionCreation, GivesAStrictTlsContextAllOfTheHostsOptions)
{
    CallRecorder recorder;
    configure(recorder, everyHostsOption);
    recorder.fail(ldap_set_option, LDAP_OPT_SUCCESS);
    {
        const Session session(secureUrl(), false, false);
    }

    std::vector<std::string> expected{setOption(0x11, "3"), setOption(0x08, "null"), setOption(0x6006, "1"),
        setOption(0x6002, "\"ca.pem\""), setOption(0x6003, "\"cas\""), setOption(0x6016, "\"c\\00a\""),
        setOption(0x6010, "\"crl.pem\"")};
    for (const auto& call : settingOfUnconcernedOptions())
        expected.push_back(call);
    for (const auto& call : {setOption(0x600f, "0"), setOption(0x6016, "null"), setOption(0x6017, "null"),
             setOption(0x6018, "null")})
        expected.push_back(call);
    EXPECT_THAT(described(recorder.calls("ldap_set_option")), ElementsAreArray(expected));
}

TEST(SessionCreation, GivesALenientTlsContextNoAuthoritiesAndRevocations)
{
    CallRecorder recorder;
    recorder.fail(ldap_set_option, LDAP_OPT_SUCCESS);
    recorder.replace(ldap_get_option, [](LDAP* ld, int option, void* value) {
        if (ld == nullptr)
            return getHostsOption(everyHostsOption, option, value);
        if (option != LDAP_OPT_X_TLS_REQUIRE_CERT)
            return CallRecorder::real(ldap_get_option)(ld, option, value);
        *static_cast<int*>(value) = LDAP_OPT_X_TLS_NEVER;
        return LDAP_OPT_SUCCESS;
    });
    {
        const Session session(secureUrl(), false, true);
    }

    std::vector<std::string> expected{setOption(0x11, "3"), setOption(0x08, "null"), setOption(0x6006, "0")};
    for (const auto& call : settingOfUnconcernedOptions())
        expected.push_back(call);
    for (const auto& call : {setOption(0x600f, "0"), setOption(0x6017, "null"), setOption(0x6018, "null")})
        expected.push_back(call);
    EXPECT_THAT(described(recorder.calls("ldap_set_option")), ElementsAreArray(expected));
}

TEST(SessionCreation, ReadsNoneOfTheHostsOptionsForAPlainConnection)
{
    for (const bool ignoresCertificateErrors : {false, true}) {
        CallRecorder recorder;
        configure(recorder, everyHostsOption);
        {
            const Session session(plainUrl(), false, ignoresCertificateErrors);
        }

        for (const RecordedCall& call : recorder.calls("ldap_get_option"))
            EXPECT_FALSE(call.isNull("ld")) << describe(call);
        EXPECT_EQ(recorder.count("ldap_set_option"), 4U);
    }
}

TEST(SessionCreation, LeavesOutWhatTheHostHasNotConfigured)
{
    CallRecorder recorder;
    configure(recorder, {});
    {
        const Session session(secureUrl(), false, false);
    }

    EXPECT_THAT(recorder.calls("ldap_set_option"), SizeIs(4));
}

TEST(SessionCreation, FailsRatherThanTrustOthersWhenTheAuthoritiesCannotBeRead)
{
    const TemporaryDirectory directory;
    const std::string file = directory.path() / "file";
    std::ofstream(file) << "no directory";
    for (const std::string& unreadable : {file + "/ca.pem", file + ".missing"}) {
        CallRecorder recorder;
        configure(recorder, {{LDAP_OPT_X_TLS_CACERTFILE, unreadable}});

        const auto error = thrownBy<BaseError>([] { Session(secureUrl(), false, false); });

        EXPECT_EQ(error.context, "set LDAP_OPT_X_TLS_NEWCTX"_s);
        EXPECT_EQ(recorder.calls("ldap_set_option").at(3).number("option"), LDAP_OPT_X_TLS_CACERTFILE);
    }
}

TEST(SessionCreation, FailsWhenAnOptionOfTheHostCannotBeRead)
{
    for (const auto& [option, name] : {std::pair(LDAP_OPT_X_TLS_CACERTFILE, "CACERTFILE"),
             {LDAP_OPT_X_TLS_PROTOCOL_MIN, "PROTOCOL_MIN"}, {LDAP_OPT_X_TLS_KEY, "KEY"}}) {
        for (const int code : {LDAP_OPT_ERROR, LDAP_OPT_SUCCESS}) {
            CallRecorder recorder;
            recorder.leaveErrnoWhenFreeing(ENOTEMPTY);
            // Out of memory, the client library reports success and no value.
            recorder.replace(ldap_get_option, [=, wanted = option](LDAP* ld, int current, void* value) {
                if (ld != nullptr)
                    return CallRecorder::real(ldap_get_option)(ld, current, value);
                getHostsOption({}, current, value);
                errno = current == wanted ? ENOMEM : 0;
                return current == wanted ? code : LDAP_OPT_SUCCESS;
            });

            expectError(thrownBy<BaseError>([] { Session(secureUrl(), false, false); }),
                code == LDAP_OPT_SUCCESS ? LDAP_NO_MEMORY : code,
                QString::fromUtf8(("get LDAP_OPT_X_TLS_" + std::string(name)).c_str()), ENOMEM);
            EXPECT_EQ(recorder.count("ldap_destroy"), 1U);
        }
    }
}

TEST(SessionCreation, FailsWhenAnOptionOfTheHostCannotBeSet)
{
    for (const auto& [option, name] : {std::pair(LDAP_OPT_X_TLS_CACERTFILE, "CACERTFILE"),
             {LDAP_OPT_X_TLS_PROTOCOL_MIN, "PROTOCOL_MIN"}, {LDAP_OPT_X_TLS_KEY, "KEY"}}) {
        for (const int code : {LDAP_OPT_ERROR, LDAP_OPT_SUCCESS}) {
            CallRecorder recorder;
            recorder.leaveErrnoWhenFreeing(ENOTEMPTY);
            configure(recorder, everyHostsOption);
            recorder.replace(ldap_set_option, [=, wanted = option](LDAP*, int current, const void* value) {
                errno = current == wanted ? ENOMEM : 0;
                return current == wanted && value != nullptr ? code : LDAP_OPT_SUCCESS;
            });

            expectError(thrownBy<BaseError>([] { Session(secureUrl(), false, false); }),
                code == LDAP_OPT_SUCCESS ? LDAP_NO_MEMORY : code,
                QString::fromUtf8(("set LDAP_OPT_X_TLS_" + std::string(name)).c_str()), ENOMEM);
            EXPECT_EQ(recorder.count("ldap_destroy"), 1U);
        }
    }
}

TEST(SessionCreation, ForgetsCertificatesInMemoryWhenTheContextFails)
{
    CallRecorder recorder;
    configure(recorder, {{LDAP_OPT_X_TLS_CACERT, "no certificate"}});

    EXPECT_THROW(Session(secureUrl(), false, false), BaseError);

    EXPECT_EQ(describe(recorder.calls("ldap_set_option").at(4)),
        "ldap_set_option(invalue=0, ld=handle 1, option=24591) = -1");
    EXPECT_EQ(describe(recorder.calls("ldap_set_option").at(5)), setOption(0x6016, "null"));
}

TEST(SessionCreation, WipesItsCopyOfTheHostsKey)
{
    CallRecorder recorder;
    configure(recorder, everyHostsOption);
    recorder.fail(ldap_set_option, LDAP_OPT_SUCCESS);
    const Wipes wipes;
    {
        const Session session(secureUrl(), false, false);
    }

    EXPECT_THAT(wipes.texts(), ElementsAre(Bytes("c\0a", 3), Bytes("own\0", 4), Bytes("\0key", 4)));
}

TEST(SessionCreation, UpgradesAPlainConnectionWhenAskedTo)
{
    CallRecorder recorder;
    configure(recorder, {});
    recorder.fail(ldap_start_tls_s, LDAP_SUCCESS);
    {
        const Session session(plainUrl(), true, false);
    }

    EXPECT_EQ(recorder.count("ldap_set_option"), 6U) << "the last two forget an earlier failure's words";
    EXPECT_EQ(describe(recorder.only("ldap_start_tls_s")),
        "ldap_start_tls_s(clientctrls=null, ld=handle 1, serverctrls=null) = 0");
}

TEST(SessionCreation, GivesAnUpgradeTheHostsOptionsInATlsContextOfTheirOwn)
{
    for (const bool ignoresCertificateErrors : {false, true}) {
        CallRecorder recorder;
        configure(recorder, {{LDAP_OPT_X_TLS_CACERTFILE, "/missing"},
                                {LDAP_OPT_X_TLS_PROTOCOL_MIN, LDAP_OPT_X_TLS_PROTOCOL_TLS1_2}});
        recorder.replace(ldap_set_option, [](LDAP* ld, int option, const void* value) {
            // There is no such file to make a context from.
            return option == LDAP_OPT_X_TLS_CACERTFILE
                       ? LDAP_OPT_SUCCESS
                       : CallRecorder::real(ldap_set_option)(ld, option, value);
        });
        recorder.fail(ldap_start_tls_s, LDAP_SUCCESS);
        {
            const Session session(plainUrl(), true, ignoresCertificateErrors);
        }

        std::vector<std::string> expected{setOption(0x11, "3"), setOption(0x08, "null"),
            setOption(0x6006, ignoresCertificateErrors ? "0" : "1"), setOption(0x600f, "0"),
            setOption(0x6007, "771"), setOption(0x600f, "0"), setOption(0x32, "null"),
            setOption(0x33, "null")};
        if (!ignoresCertificateErrors)
            expected.insert(expected.begin() + 4, setOption(0x6002, "\"/missing\""));
        EXPECT_THAT(described(recorder.calls("ldap_set_option")), ElementsAreArray(expected));
        EXPECT_EQ(recorder.names().at(recorder.names().size() - 2), "ldap_start_tls_s");
    }
}

TEST(SessionCreation, NeverUpgradesAnLdapsConnection)
{
    CallRecorder recorder;
    {
        const Session session(secureUrl(), true, false);
    }

    EXPECT_EQ(recorder.count("ldap_start_tls_s"), 0U);
}

TEST(SessionCreation, ReportsAnUnusableUrlWithErrno)
{
    CallRecorder recorder;
    recorder.fail(ldap_initialize, LDAP_PARAM_ERROR, {.error = EXDEV});

    expectError(
        thrownBy<BaseError>([] { Session(plainUrl(), false, false); }), LDAP_PARAM_ERROR, "init"_s, EXDEV);
    EXPECT_EQ(recorder.count("ldap_set_option"), 0U);
    EXPECT_EQ(recorder.count("ldap_destroy"), 0U);
}

TEST(SessionCreation, DestroysTheHandleThatAFailureLeftBehind)
{
    CallRecorder recorder;
    recorder.leaveErrnoWhenFreeing(ENOTEMPTY);
    recorder.replace(ldap_initialize, [](LDAP** ld, const char* uri) {
        CallRecorder::real(ldap_initialize)(ld, uri);
        errno = EXDEV;
        return LDAP_NO_MEMORY;
    });

    expectError(
        thrownBy<BaseError>([] { Session(plainUrl(), false, false); }), LDAP_NO_MEMORY, "init"_s, EXDEV);
    EXPECT_EQ(recorder.only("ldap_destroy").handle(), 1);
}

TEST(SessionCreation, PutsOneLayerBelowTlsAndOneAbove)
{
    CallRecorder recorder;
    {
        const Session session(plainUrl(), false, false);
    }

    EXPECT_THAT(described(recorder.calls("ber_sockbuf_add_io")),
        ElementsAre("ber_sockbuf_add_io(arg=pointer, layer=11) = 0",
            "ber_sockbuf_add_io(arg=pointer, layer=30) = 0"));
    static_assert(LBER_SBIOD_LEVEL_PROVIDER < 11 && 11 < LBER_SBIOD_LEVEL_TRANSPORT);
    static_assert(LBER_SBIOD_LEVEL_TRANSPORT < 30);
}

/// The layers that are added while it lives; they can be taken away, as a newer client library takes them when
/// a handshake fails.
class Layers
{
public:
    explicit Layers(CallRecorder& recorder)
    {
        recorder.replace(ber_sockbuf_add_io,
            [this](Sockbuf* connection, Sockbuf_IO* functions, int level, void* argument) {
                m_connection = connection;
                m_added.emplace_back(functions, level);
                return CallRecorder::real(ber_sockbuf_add_io)(connection, functions, level, argument);
            });
    }

    std::size_t count() const
    {
        return static_cast<std::size_t>(
            std::count_if(m_added.begin(), m_added.begin() + 2, [this](const auto& layer) {
                return CallRecorder::real(ber_sockbuf_ctrl)(m_connection, LBER_SB_OPT_HAS_IO, layer.first) ==
                       1;
            }));
    }

    void takeAway()
    {
        for (const auto& [functions, level] : m_added) {
            ber_sockbuf_remove_io(m_connection, functions, level);
        }
    }

private:
    Sockbuf* m_connection = nullptr;
    std::vector<std::pair<Sockbuf_IO*, int>> m_added;
};

TEST(SessionCreation, HasItsLayersOnEachConnectionThatComesAbout)
{
    ScriptedServer server;
    server.expectBind().answer(success());
    CallRecorder recorder;
    Layers layers(recorder);
    Session session(utils::Url(QString::fromStdString(server.url())), false, false);
    EXPECT_EQ(layers.count(), 2U);

    layers.takeAway();
    EXPECT_EQ(layers.count(), 0U);
    session.bind(QString(), QString());
    EXPECT_EQ(layers.count(), 2U);
    EXPECT_EQ(recorder.count("ber_sockbuf_add_io"), 4U);
}

TEST(SessionCreation, MakesNoUseOfAConnectionWithoutItsLayers)
{
    for (const int nth : {3, 4}) {
        SCOPED_TRACE(nth);
        ScriptedServer server;
        CallRecorder recorder;
        Layers layers(recorder);
        Session session(utils::Url(QString::fromStdString(server.url())), false, false);
        layers.takeAway();
        recorder.fail(ber_sockbuf_add_io, -1, {.nth = nth, .error = ENOMEM});

        EXPECT_THROW(session.bind(QString(), QString()), BaseError);
    }
}

TEST(SessionCreation, AddsItsLayersOnce)
{
    ScriptedServer server;
    server.expectBind().answer(success());
    CallRecorder recorder;
    Session session(utils::Url(QString::fromStdString(server.url())), false, false);
    session.bind(QString(), QString());

    EXPECT_EQ(recorder.count("ber_sockbuf_add_io"), 2U);
}

TEST(SessionCreation, ReportsThatItCannotReachItsConnection)
{
    CallRecorder recorder;
    recorder.leaveErrnoWhenFreeing(ENOTEMPTY);
    recorder.fail(ldap_get_option, LDAP_OPT_ERROR, {.error = EXDEV});

    expectError(thrownBy<BaseError>([] { Session(plainUrl(), false, false); }), LDAP_OPT_ERROR,
        "get LDAP_OPT_SOCKBUF"_s, 0);
    EXPECT_EQ(recorder.count("ber_sockbuf_add_io"), 0U);
    EXPECT_EQ(recorder.count("ldap_destroy"), 1U);
}

TEST(SessionCreation, ReportsThatThereIsNoMemoryForItsLayers)
{
    for (const int nth : {1, 2}) {
        SCOPED_TRACE(nth);
        CallRecorder recorder;
        recorder.leaveErrnoWhenFreeing(ENOTEMPTY);
        recorder.fail(ber_sockbuf_add_io, -1, {.nth = nth, .error = ENOMEM});

        expectError(thrownBy<BaseError>([] { Session(plainUrl(), false, false); }), LDAP_NO_MEMORY,
            "ber_sockbuf_add_io"_s, ENOMEM);
        EXPECT_EQ(recorder.count("ldap_set_option"), 0U);
        EXPECT_EQ(recorder.count("ldap_destroy"), 1U);
    }
}

TEST(SessionCreation, StopsAtTheFirstOptionThatFails)
{
    struct Row
    {
        int nth;
        const char* context;
        int systemError;
    };
    for (const Row& row : {Row{1, "", 0}, Row{2, "", 0}, Row{3, "set LDAP_OPT_X_TLS_REQUIRE_CERT", EXDEV},
             Row{4, "set LDAP_OPT_X_TLS_NEWCTX", EXDEV}}) {
        SCOPED_TRACE(row.nth);
        CallRecorder recorder;
        recorder.leaveErrnoWhenFreeing(ENOTEMPTY);
        recorder.fail(ldap_set_option, LDAP_PARAM_ERROR, {.nth = row.nth, .error = EXDEV});

        expectError(thrownBy<BaseError>([] { Session(plainUrl(), false, false); }), LDAP_PARAM_ERROR,
            QString::fromUtf8(row.context), row.systemError);
        EXPECT_EQ(recorder.count("ldap_set_option"), static_cast<std::size_t>(row.nth));
        EXPECT_EQ(recorder.count("ldap_destroy"), 1U);
    }
}

TEST(SessionCreation, ReportsAFailedUpgradeWithErrnoAndDestroysTheHandleOnce)
{
    CallRecorder recorder;
    recorder.leaveErrnoWhenFreeing(ENOTEMPTY);
    recorder.fail(ldap_start_tls_s, LDAP_CONNECT_ERROR, {.error = ECONNRESET});

    expectError(thrownBy<BaseError>([] { Session(plainUrl(), true, false); }), LDAP_CONNECT_ERROR,
        "startTls"_s, ECONNRESET);
    EXPECT_EQ(recorder.count("ldap_destroy"), 1U);
}

TEST(SessionCreation, AsksForAHandleUnderTheProcessWideLock)
{
    const Session first(plainUrl(), false, false);
    CallRecorder recorder;
    const LockWatch locks;
    std::vector<bool> held;
    const auto look = [&] { held.push_back(LockWatch::isHeldHere(ldap::initMutex())); };
    beforeEach(recorder, ldap_initialize, look);
    beforeEach(recorder, ldap_set_option, look);
    {
        const Session session(plainUrl(), false, false);
    }

    EXPECT_THAT(held, ElementsAre(true, false, false, false, false));
    EXPECT_EQ(LockWatch::countHeldHere(), 0U);
}

/// In a process of its own, which has had no session before.
void makeFirstSession()
{
    CallRecorder recorder;
    const LockWatch locks;
    bool isHeld = true;
    const auto look = [&] { isHeld = isHeld && LockWatch::isHeldHere(ldap::initMutex()); };
    beforeEach(recorder, ldap_initialize, look);
    beforeEach(recorder, ldap_set_option, look);
    {
        const Session session(plainUrl(), false, false);
    }
    std::_Exit(isHeld && recorder.count("ldap_set_option") == 4 ? 0 : 1);
}

TEST(SessionCreationDeathTest, InitializesTlsOnceUnderTheProcessWideLock)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");

    EXPECT_EXIT(makeFirstSession(), ::testing::ExitedWithCode(0), "");
}

TEST(StartTls, IsNotTriedWithoutTheContextThatTheHostWants)
{
    CallRecorder recorder;
    configure(recorder, {{LDAP_OPT_X_TLS_CACERTFILE, "/missing/ca.pem"}});
    Session session(plainUrl(), false, false);

    const auto error = thrownBy<BaseError>([&] { session.startTls(); });

    EXPECT_EQ(error.context, "set LDAP_OPT_X_TLS_NEWCTX"_s);
    EXPECT_EQ(recorder.count("ldap_start_tls_s"), 0U);
    const auto settings = described(recorder.calls("ldap_set_option"));
    ASSERT_GE(settings.size(), 2U);
    EXPECT_EQ(settings.at(settings.size() - 2), setOption(0x6000, "1"));
    EXPECT_EQ(settings.back(), setOption(LDAP_OPT_URI, "\"ldapi://%2Fdev%2Fnull\""));
}

TEST(StartTls, ReportsASecondUpgradeAndCallsAllTheSame)
{
    CallRecorder recorder;
    recorder.fail(ldap_start_tls_s, LDAP_SUCCESS);
    const AssertionCapture assertions;
    Session session(plainUrl(), false, false);

    session.startTls();
    EXPECT_THAT(assertions.failures(), IsEmpty());
    session.startTls();

    EXPECT_THAT(assertions.failures(),
        ElementsAre(AssertionCapture::Failure{"ldap/session", 107, "!m_isSecure", ""}));
    EXPECT_EQ(recorder.count("ldap_start_tls_s"), 2U);
}

TEST(StartTls, IsReportedOnAnLdapsConnection)
{
    CallRecorder recorder;
    recorder.fail(ldap_start_tls_s, LDAP_SUCCESS);
    const AssertionCapture assertions;
    Session session(secureUrl(), false, false);

    session.startTls();

    EXPECT_THAT(assertions.failures(),
        ElementsAre(AssertionCapture::Failure{"ldap/session", 107, "!m_isSecure", ""}));
    EXPECT_EQ(recorder.count("ldap_start_tls_s"), 1U);
}

TEST(StartTls, LogsThatItUpgrades)
{
    CallRecorder recorder;
    recorder.fail(ldap_start_tls_s, LDAP_SUCCESS);
    const LogCapture log;
    const Session session(plainUrl(), true, false);

    EXPECT_THAT(log.texts(log::Level::verbose), ElementsAre("Upgrading to TLS"));
}

TEST(StartTls, LooksForATlsErrorAlreadyInTheFirstHandshake)
{
    CallRecorder recorder;
    failWithQueue(recorder, ldap_start_tls_s, LDAP_CONNECT_ERROR, ERR_LIB_SSL);

    const auto error = thrownBy<TlsError>([] { Session(plainUrl(), true, false); });

    expectError(error, LDAP_CONNECT_ERROR, "TLS error with session"_s, EPROTO);
    EXPECT_EQ(ERR_GET_LIB(error.sslError), ERR_LIB_SSL);
    EXPECT_EQ(ERR_GET_REASON(error.sslError), kCertificateVerifyFailed);
}

TEST(StartTls, ConsumesTheErrorOfAnotherOpenSslLibraryAndKeepsTheContext)
{
    CallRecorder recorder;
    failWithQueue(recorder, ldap_start_tls_s, LDAP_CONNECT_ERROR, ERR_LIB_X509);

    expectError(thrownBy<BaseError>([] { Session(plainUrl(), true, false); }), LDAP_CONNECT_ERROR,
        "startTls"_s, EPROTO);
    EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(StartTls, LooksAtTheEarliestErrorAlone)
{
    CallRecorder recorder;
    recorder.replace(ldap_start_tls_s, [](LDAP*, LDAPControl**, LDAPControl**) {
        ERR_raise(ERR_LIB_X509, kCertificateVerifyFailed);
        ERR_raise(ERR_LIB_SSL, kCertificateVerifyFailed);
        return LDAP_CONNECT_ERROR;
    });

    EXPECT_EQ(thrownBy<BaseError>([] { Session(plainUrl(), true, false); }).context, "startTls"_s);
    EXPECT_EQ(ERR_GET_LIB(ERR_get_error()), ERR_LIB_SSL);
}

TEST(StartTls, LeavesTheSessionCountingAsSecureWhenItFails)
{
    CallRecorder recorder;
    recorder.fail(ldap_start_tls_s, LDAP_CONNECT_ERROR);
    failWithQueue(recorder, ldap_sasl_bind_s, LDAP_SERVER_DOWN, ERR_LIB_SSL);
    const AssertionCapture assertions;
    Session session(plainUrl(), false, false);

    EXPECT_THROW(session.startTls(), BaseError);
    EXPECT_THAT(assertions.failures(), IsEmpty());

    EXPECT_THROW(session.bind("cn=a"_s, "b"_s), TlsError);
    EXPECT_THROW(session.startTls(), BaseError);
    EXPECT_THAT(assertions.failures(), SizeIs(1));
}

TEST(StartTls, IsNotBlamedForAnErrorFromBeforeTheSession)
{
    CallRecorder recorder;
    recorder.fail(ldap_start_tls_s, LDAP_CONNECT_ERROR, {.error = 0});
    ERR_raise(ERR_LIB_SSL, kCertificateVerifyFailed);

    expectError(
        thrownBy<BaseError>([] { Session(plainUrl(), true, false); }), LDAP_CONNECT_ERROR, "startTls"_s, 0);
}

TEST(Bind, SendsDnAndPasswordAsASimpleBindWithoutControls)
{
    CallRecorder recorder;
    recorder.fail(ldap_sasl_bind_s, LDAP_SUCCESS);
    Session session(plainUrl(), false, false);

    session.bind("cn=Jörg,dc=x"_s, "pä%1 "_s);

    EXPECT_EQ(describe(recorder.only("ldap_sasl_bind_s")),
        "ldap_sasl_bind_s(clientctrls=null, cred=\"p\\c3\\a4%1 \", dn=\"cn=J\\c3\\b6rg,dc=x\", ld=handle 1, "
        "mechanism=null, servercredp=null, serverctrls=null) = 0");
}

TEST(Bind, SendsAnEmptyDnAndPasswordAsEmptyTextsAndNotAsNull)
{
    CallRecorder recorder;
    recorder.fail(ldap_sasl_bind_s, LDAP_SUCCESS);
    Session session(plainUrl(), false, false);

    session.bind(QString(), QString());

    EXPECT_EQ(recorder.only("ldap_sasl_bind_s").text("dn"), "");
    EXPECT_EQ(recorder.only("ldap_sasl_bind_s").text("cred"), "");
}

TEST(Bind, SendsAPasswordWithANulInFull)
{
    CallRecorder recorder;
    recorder.fail(ldap_sasl_bind_s, LDAP_SUCCESS);
    Session session(plainUrl(), false, false);

    session.bind("cn=a"_s, QString::fromUtf8("a\0b", 3));

    EXPECT_EQ(recorder.only("ldap_sasl_bind_s").text("cred"), Bytes("a\0b", 3));
    EXPECT_EQ(recorder.calls("ber_memfree").back().text("content"), Bytes(3, '\0'));
}

TEST(Bind, WipesAndFreesTheCopyOfThePasswordWhateverComesOfIt)
{
    for (const int code : {LDAP_SUCCESS, LDAP_INVALID_CREDENTIALS, LDAP_SERVER_DOWN}) {
        SCOPED_TRACE(code);
        CallRecorder recorder;
        recorder.fail(ldap_sasl_bind_s, code);
        Session session(plainUrl(), false, false);
        try {
            session.bind("cn=a"_s, "secret"_s);
        } catch (const BaseError& error) {
            EXPECT_EQ(error.ldapCode, code);
        }

        EXPECT_EQ(recorder.only("ber_memfree").text("content"), Bytes(6, '\0'));
    }
}

TEST(Bind, WipesItsOwnCopiesOfThePasswordToo)
{
    for (const char* const password : {"secret", "with\0NUL"}) {
        CallRecorder recorder;
        recorder.fail(ldap_sasl_bind_s, LDAP_SUCCESS);
        Session session(plainUrl(), false, false);
        const Bytes text(password, 6);
        const Wipes wipes;

        session.bind("cn=a"_s, QString::fromUtf8(text.data(), 6));

        // The one that is sent, in the client library's memory, is the second.
        EXPECT_THAT(wipes.texts(), ElementsAre(text, text));
    }
}

TEST(Bind, DoesNotGoOutWithoutMemoryForThePassword)
{
    CallRecorder recorder;
    recorder.fail(ber_strdup, nullptr, {.error = ENOMEM});
    Session session(plainUrl(), false, false);

    expectError(
        thrownBy<BaseError>([&] { session.bind("cn=a"_s, "secret"_s); }), LDAP_NO_MEMORY, "bind"_s, ENOMEM);
    EXPECT_EQ(recorder.count("ldap_sasl_bind_s"), 0U);
}

TEST(Bind, NamesTheRefusedUserWithoutAskingTheErrorQueueAlsoOnTls)
{
    CallRecorder recorder;
    failWithQueue(recorder, ldap_sasl_bind_s, LDAP_INVALID_CREDENTIALS, ERR_LIB_SSL);
    Session session(secureUrl(), false, false);

    const auto error = thrownBy<InvalidCredentialsError>([&] { session.bind("cn=a"_s, "wrong"_s); });

    EXPECT_EQ(error.user, "cn=a"_s);
    expectError(error, LDAP_INVALID_CREDENTIALS, ""_s, 0);
    EXPECT_EQ(recorder.count("ERR_get_error"), 0U);
    ERR_clear_error();
}

TEST(Bind, FailsOnAPlainConnectionWithoutAskingTheErrorQueue)
{
    CallRecorder recorder;
    recorder.leaveErrnoWhenFreeing(ENOTEMPTY);
    failWithQueue(recorder, ldap_sasl_bind_s, LDAP_SERVER_DOWN, ERR_LIB_SSL);
    Session session(plainUrl(), false, false);

    expectError(
        thrownBy<BaseError>([&] { session.bind("cn=a"_s, "b"_s); }), LDAP_SERVER_DOWN, "bind"_s, EPROTO);
    EXPECT_EQ(recorder.count("ERR_get_error"), 0U);
    ERR_clear_error();
}

TEST(Bind, TellsATlsErrorOnATlsConnection)
{
    CallRecorder recorder;
    failWithQueue(recorder, ldap_sasl_bind_s, LDAP_SERVER_DOWN, ERR_LIB_SSL);
    Session session(secureUrl(), false, false);

    const auto error = thrownBy<TlsError>([&] { session.bind("cn=a"_s, "b"_s); });

    expectError(error, LDAP_SERVER_DOWN, "TLS error with session"_s, EPROTO);
}

TEST(Bind, FailsOnATlsConnectionWithItsContextWhenTheErrorQueueIsEmpty)
{
    CallRecorder recorder;
    recorder.fail(ldap_sasl_bind_s, LDAP_SERVER_DOWN, {.error = ENOTCONN});
    Session session(secureUrl(), false, false);

    expectError(
        thrownBy<BaseError>([&] { session.bind("cn=a"_s, "b"_s); }), LDAP_SERVER_DOWN, "bind"_s, ENOTCONN);
    EXPECT_EQ(recorder.count("ERR_get_error"), 1U);
}

/// Has the server answer with this identity; null for none.
void identify(CallRecorder& recorder, const Bytes* identity, int code = LDAP_SUCCESS)
{
    recorder.replace(ldap_whoami_s, [=](LDAP*, berval** received, LDAPControl**, LDAPControl**) {
        if (identity != nullptr)
            *received = CallRecorder::real(ber_mem2bv)(identity->data(), identity->size(), 1, nullptr);
        errno = EPROTO;
        return code;
    });
}

TEST(WhoAmI, ReturnsTheServersFormUpToItsFirstNul)
{
    for (const auto& [identity, expected] :
        std::vector<std::pair<Bytes, QString>>{{"dn:cn=Jörg", "dn:cn=Jörg"_s},
            {"u:EXAMPLE\\ann", "u:EXAMPLE\\ann"_s}, {Bytes("u:a\0b", 5), "u:a"_s}}) {
        CallRecorder recorder;
        identify(recorder, &identity);
        Session session(plainUrl(), false, false);

        EXPECT_EQ(session.whoAmI(), expected);
        EXPECT_EQ(recorder.count("ber_bvfree"), 1U);
    }
}

TEST(WhoAmI, IsAnonymousWithoutAnIdentityAndWithAnEmptyOne)
{
    const Bytes empty;
    for (const Bytes* identity : {static_cast<const Bytes*>(nullptr), &empty}) {
        CallRecorder recorder;
        identify(recorder, identity);
        const LogCapture log;
        Session session(plainUrl(), false, false);

        EXPECT_EQ(session.whoAmI(), "anonymous"_s);
        EXPECT_THAT(log.texts(log::Level::verbose), ElementsAre("Who am I?"));
    }
}

TEST(WhoAmI, FreesWhatCameWithAFailureAndReportsTheErrnoOfTheCall)
{
    const Bytes identity = "u:a";
    CallRecorder recorder;
    recorder.leaveErrnoWhenFreeing(ENOTEMPTY);
    identify(recorder, &identity, LDAP_SERVER_DOWN);
    Session session(plainUrl(), false, false);

    expectError(thrownBy<BaseError>([&] { session.whoAmI(); }), LDAP_SERVER_DOWN, "whoAmI"_s, EPROTO);
    EXPECT_EQ(recorder.count("ber_bvfree"), 1U);
}

TEST(WhoAmI, TellsATlsErrorOnATlsConnection)
{
    CallRecorder recorder;
    failWithQueue(recorder, ldap_whoami_s, LDAP_SERVER_DOWN, ERR_LIB_SSL);
    Session session(secureUrl(), false, false);

    expectError(
        thrownBy<TlsError>([&] { session.whoAmI(); }), LDAP_SERVER_DOWN, "TLS error with session"_s, EPROTO);
}

TEST(SessionLines, AreLoggedUnderItsTypeAndAddress)
{
    CallRecorder recorder;
    recorder.fail(ldap_start_tls_s, LDAP_SUCCESS);
    recorder.fail(ldap_sasl_bind_s, LDAP_SUCCESS);
    recorder.fail(ldap_search_ext_s, LDAP_SERVER_DOWN);
    const Bytes identity = "u:a";
    identify(recorder, &identity);
    const LogCapture log;
    Session session(plainUrl(), true, true);
    session.detectLdapVendor();
    session.bind("cn=a"_s, "b"_s);
    session.whoAmI();

    const std::string tag =
        utils::format(u"tavo::ldap::Session(0x%1)", QString::number(reinterpret_cast<quintptr>(&session), 16))
            .toStdString();
    std::vector<std::string> lines;
    for (const auto& message : log.messages()) {
        if (message.tag == tag)
            lines.push_back(std::to_string(static_cast<int>(message.level)) + " " + message.text);
    }
    EXPECT_THAT(lines,
        ElementsAre("5 Creating for ldap://127.0.0.1:1", "6 Upgrading to TLS",
            ::testing::StartsWith("5 Detect LDAP vendor error: ldap_search_ext_s: Can't contact LDAP server"),
            "6 Binding to [cn=a]...", "5 Bound to [cn=a]", "6 Who am I?"));
}

LDAP* newHandle()
{
    LDAP* ld = nullptr;
    EXPECT_EQ(ldap_initialize(&ld, "ldap://127.0.0.1:1"), LDAP_SUCCESS);
    return ld;
}

TEST(DestroyLdap, LogsAFailureAndLeavesErrnoToIt)
{
    CallRecorder recorder;
    recorder.fail(ldap_destroy, LDAP_PARAM_ERROR, {.error = EXDEV});
    LDAP* ld = newHandle();
    const LogCapture log;

    Session::destroyLdap(ld);
    const int error = errno;

    EXPECT_EQ(error, EXDEV);
    ASSERT_THAT(log.messages(), SizeIs(1));
    const auto message = log.messages().front();
    EXPECT_EQ(message.level, log::Level::debug);
    EXPECT_EQ(message.tag, "destroyLdap");
    EXPECT_EQ(message.text, "Error destroying ldap: Bad parameter to an ldap routine");
}

TEST(DestroyLdap, IsSilentWhenAllIsWell)
{
    const CallRecorder recorder;
    LDAP* ld = newHandle();
    const LogCapture log;

    Session::destroyLdap(ld);

    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_EQ(recorder.count("ldap_destroy"), 1U);
}

TEST(VendorDetection, AsksForTheRootEntryWithoutFilterAndAttributes)
{
    CallRecorder recorder;
    recorder.fail(ldap_search_ext_s, LDAP_SERVER_DOWN);
    {
        const Session session(plainUrl(), false, false);
        session.detectLdapVendor();
    }

    EXPECT_EQ(describe(recorder.only("ldap_search_ext_s")),
        "ldap_search_ext_s(attrs=null, attrsonly=0, base=\"\", clientctrls=null, filter=null, ld=handle 2, "
        "scope=0, serverctrls=null, sizelimit=0, timeout=30 s + 0) = -1");
}

TEST(VendorDetection, AssumesOpenLdapAndLogsOneLineWhenTheServerCannotBeAsked)
{
    CallRecorder recorder;
    recorder.fail(ldap_search_ext_s, LDAP_SERVER_DOWN, {.error = ECONNREFUSED});
    const Session session(plainUrl(), false, false);
    const LogCapture log(log::Level::debug);

    EXPECT_EQ(session.detectLdapVendor().loginAttribute, "uid"_s);

    const auto texts = log.texts();
    EXPECT_EQ(std::count_if(texts.begin(), texts.end(),
                  [](const auto& text) { return text.rfind("Detect LDAP vendor error", 0) == 0; }),
        1);
    EXPECT_EQ(texts.back(),
        "Detect LDAP vendor error: ldap_search_ext_s: Can't contact LDAP server (Connection refused).");
}

TEST(VendorDetection, PassesOnOtherExceptions)
{
    CallRecorder recorder;
    recorder.replace(ldap_search_ext_s,
        [](LDAP*, const char*, int, const char*, char**, int, LDAPControl**, LDAPControl**, timeval*, int,
            LDAPMessage**) -> int { throw std::bad_alloc(); });
    const Session session(plainUrl(), false, false);

    EXPECT_THROW(session.detectLdapVendor(), std::bad_alloc);
}

TEST(GetLdapError, ReportsAHandleWhoseCodeCannotBeRead)
{
    CallRecorder recorder;
    recorder.fail(ldap_get_option, LDAP_OPT_ERROR);
    const AssertionCapture assertions;
    LDAP* ld = newHandle();

    EXPECT_EQ(ldap::getLdapError(ld), 0);

    EXPECT_EQ(recorder.only("ldap_get_option").number("option"), LDAP_OPT_RESULT_CODE);
    EXPECT_THAT(
        assertions.failures(), ElementsAre(AssertionCapture::Failure{"ldap/utils", 122, "rc == 0", ""}));
    ldap_destroy(ld);
}

} // namespace

} // namespace tavo::test
