#include "support/scripted_server.h"
#include <ldap/private/handle.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

namespace tavo::test {

namespace {

using ldap::LdapHandle;

LdapHandle handleFor(const std::string& url)
{
    return ldap::createHandle(utils::Url(QString::fromStdString(url)), false, false);
}

Sockbuf* connectionOf(LDAP* ld)
{
    Sockbuf* connection = nullptr;
    EXPECT_EQ(ldap_get_option(ld, LDAP_OPT_SOCKBUF, &connection), LDAP_OPT_SUCCESS);
    return connection;
}

int socketOf(LDAP* ld)
{
    int socket = -1;
    ldap_get_option(ld, LDAP_OPT_DESC, &socket);
    return socket;
}

int bind(LDAP* ld)
{
    berval noPassword{};
    return ldap_sasl_bind_s(ld, "", LDAP_SASL_SIMPLE, &noPassword, nullptr, nullptr, nullptr);
}

/// What is right above the socket, in place of the client library's own access to it.
class Bottom
{
public:
    explicit Bottom(Sockbuf* connection)
    {
        instance() = this;
        EXPECT_EQ(ber_sockbuf_add_io(connection, &m_functions, LBER_SBIOD_LEVEL_PROVIDER, nullptr), 0);
    }
    ~Bottom() { instance() = nullptr; }
    Bottom(const Bottom&) = delete;
    Bottom& operator=(const Bottom&) = delete;

    const std::string& written() const { return m_written; }

private:
    static Bottom*& instance()
    {
        static Bottom* instance = nullptr;
        return instance;
    }

    std::string m_written;
    Sockbuf_IO m_functions{
        .sbi_setup = nullptr,
        .sbi_remove = nullptr,
        .sbi_ctrl = [](Sockbuf_IO_Desc*, int option,
                        void*) { return option == LBER_SB_OPT_DATA_READY ? 1 : 0; },
        .sbi_read = [](Sockbuf_IO_Desc*, void*, ber_len_t) -> ber_slen_t {
            errno = EXDEV;
            return -1;
        },
        .sbi_write = [](Sockbuf_IO_Desc*, void* data, ber_len_t size) -> ber_slen_t {
            instance()->m_written.append(static_cast<const char*>(data), size);
            return static_cast<ber_slen_t>(size);
        },
        .sbi_close = nullptr,
    };
};

/// A message for the connection to write: the sequence of nothing.
BerElement* emptySequence()
{
    BerElement* message = ber_alloc_t(LBER_USE_DER);
    EXPECT_NE(ber_printf(message, "{}"), -1);
    return message;
}

TEST(SocketLayer, PassesOnWhatIsReadWrittenAndAsked)
{
    const LdapHandle handle = handleFor("ldap://127.0.0.1:1");
    Sockbuf* const connection = connectionOf(handle.get());
    EXPECT_EQ(ber_sockbuf_ctrl(connection, LBER_SB_OPT_DATA_READY, nullptr), 0);

    const Bottom bottom(connection);
    EXPECT_EQ(ber_flush2(connection, emptySequence(), LBER_FLUSH_FREE_ALWAYS), 0);
    EXPECT_EQ(bottom.written(), std::string("\x30\x00", 2));
    EXPECT_EQ(ber_sockbuf_ctrl(connection, LBER_SB_OPT_DATA_READY, nullptr), 1);
    EXPECT_EQ(ber_sockbuf_ctrl(connection, LBER_SB_OPT_GET_SSL, nullptr), 0);

    const std::unique_ptr<BerElement, void (*)(BerElement*)> answer(
        ber_alloc_t(LBER_USE_DER), [](BerElement* element) { ber_free(element, 1); });
    ber_len_t length = 0;
    EXPECT_EQ(ber_get_next(connection, &length, answer.get()), LBER_DEFAULT);
    EXPECT_EQ(errno, EXDEV);
}

TEST(SocketLayer, FailsWhereTheClientLibraryHasNoAccessToTheSocket)
{
    const LdapHandle handle = handleFor("ldap://127.0.0.1:1");
    Sockbuf* const connection = connectionOf(handle.get());

    errno = 0;
    EXPECT_EQ(ber_flush2(connection, emptySequence(), LBER_FLUSH_FREE_ALWAYS), -1);
    EXPECT_EQ(errno, ENOTCONN);

    const std::unique_ptr<BerElement, void (*)(BerElement*)> answer(
        ber_alloc_t(LBER_USE_DER), [](BerElement* element) { ber_free(element, 1); });
    ber_len_t length = 0;
    errno = 0;
    EXPECT_EQ(ber_get_next(connection, &length, answer.get()), LBER_DEFAULT);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST(SocketLayer, LeavesNoNumberBehindWhenTheConnectionEnds)
{
    ScriptedServer server;
    server.greet({awaitRawInput(), closeConnection()});
    const LdapHandle handle = handleFor(server.url("ldaps"));
    const LdapHandle duplicate = ldap::duplicateHandle(handle.get());

    EXPECT_EQ(bind(handle.get()), LDAP_SERVER_DOWN);
    EXPECT_EQ(socketOf(handle.get()), -1);
    EXPECT_EQ(socketOf(duplicate.get()), -1);
    EXPECT_TRUE(ldap::hasLostConnection(handle.get()));
    EXPECT_TRUE(ldap::hasLostConnection(duplicate.get()));
}

TEST(SocketLayer, EndsTheConnectionAlsoWhenSomebodyElseHasTheSocket)
{
    ScriptedServer server;
    server.expectBind().answer(success());
    LdapHandle handle = handleFor(server.url());
    EXPECT_EQ(bind(handle.get()), LDAP_SUCCESS);
    const int ofAForkedChild = dup(socketOf(handle.get()));

    handle.reset();
    server.waitForClose(0);
    close(ofAForkedChild);
}

} // namespace

} // namespace tavo::test
