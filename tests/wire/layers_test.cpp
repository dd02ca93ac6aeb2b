#include "support/ldap_messages.h"
#include "support/scripted_server.h"
#include <ldap/private/handle.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ldap.h>

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <optional>
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

/// The other end of the socket that the handle's connection is given.
class Peer
{
public:
    explicit Peer(Sockbuf* connection)
    {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
        m_socket = ends[0];
        EXPECT_EQ(ber_sockbuf_ctrl(connection, LBER_SB_OPT_SET_FD, &ends[1]), 1);
    }
    ~Peer() { close(m_socket); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    void send(const Bytes& bytes) const
    {
        EXPECT_EQ(::send(m_socket, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }

    Bytes receive() const
    {
        std::array<char, 1024> bytes{};
        const ssize_t count = recv(m_socket, bytes.data(), bytes.size(), MSG_DONTWAIT);
        return {bytes.data(), static_cast<std::size_t>(count < 0 ? 0 : count)};
    }

    /// Waits for what comes next.
    bool isEnded() const
    {
        char next = 0;
        return recv(m_socket, &next, 1, 0) == 0;
    }

private:
    int m_socket;
};

using Message = std::unique_ptr<BerElement, void (*)(BerElement*)>;

Message emptyMessage()
{
    return {ber_alloc_t(LBER_USE_DER), [](BerElement* element) { ber_free(element, 1); }};
}

/// The contents of the next message; none, with `errno`, when there is none.
std::optional<Bytes> nextMessage(Sockbuf* connection)
{
    const Message message = emptyMessage();
    ber_len_t length = 0;
    if (ber_get_next(connection, &length, message.get()) == LBER_DEFAULT) {
        return std::nullopt;
    }
    Bytes content(length, '\0');
    EXPECT_EQ(ber_read(message.get(), content.data(), length), static_cast<ber_slen_t>(length));
    return content;
}

TEST(Layers, AskForBytesThatAreReadAheadBeforeTheSocket)
{
    const LdapHandle handle = handleFor("ldap://127.0.0.1:1");
    Sockbuf* const connection = connectionOf(handle.get());
    const Peer peer(connection);
    EXPECT_EQ(ber_sockbuf_ctrl(connection, LBER_SB_OPT_DATA_READY, nullptr), 0);

    peer.send(tlv(0x30, "first message") + tlv(0x30, "second message"));
    EXPECT_EQ(nextMessage(connection), "first message");
    EXPECT_EQ(ber_sockbuf_ctrl(connection, LBER_SB_OPT_DATA_READY, nullptr), 1);
    EXPECT_EQ(nextMessage(connection), "second message");
    EXPECT_EQ(ber_sockbuf_ctrl(connection, LBER_SB_OPT_DATA_READY, nullptr), 0);
    EXPECT_EQ(ber_sockbuf_ctrl(connection, LBER_SB_OPT_GET_SSL, nullptr), 0);
}

TEST(Layers, EndAConnectionWhoseBytesNobodyReads)
{
    const LdapHandle handle = handleFor("ldap://127.0.0.1:1");
    Sockbuf* const connection = connectionOf(handle.get());
    const Peer peer(connection);
    peer.send(tlv(0x30, "first message") + tlv(0x30, "second message"));
    EXPECT_EQ(nextMessage(connection), "first message");

    while (ber_sockbuf_ctrl(connection, LBER_SB_OPT_DATA_READY, nullptr) != 0) {
    }
    EXPECT_TRUE(peer.isEnded());
}

TEST(Layers, EndTheConnectionAtAMessageThatWouldEndTheProcess)
{
    const LdapHandle handle = handleFor("ldap://127.0.0.1:1");
    Sockbuf* const connection = connectionOf(handle.get());
    const Peer peer(connection);

    const Bytes notice = berNumber(0, 0x0a) + tlv(0x04, "") + tlv(0x04, "") + tlv(0x8a, "");
    peer.send(tlv(0x30, "first message") + tlv(0x30, berNumber(0) + tlv(0x78, notice)));
    EXPECT_EQ(nextMessage(connection), "first message");
    EXPECT_EQ(nextMessage(connection), std::nullopt);
    EXPECT_EQ(errno, EPROTO);
    EXPECT_TRUE(peer.isEnded());
}

TEST(Layers, WipeARequestOnceItIsSent)
{
    const LdapHandle handle = handleFor("ldap://127.0.0.1:1");
    Sockbuf* const connection = connectionOf(handle.get());
    const Peer peer(connection);

    const Message request = emptyMessage();
    const Bytes secret = "a password";
    ASSERT_NE(ber_printf(request.get(), "{o}", secret.data(), static_cast<ber_len_t>(secret.size())), -1);
    ASSERT_EQ(ber_flush2(connection, request.get(), LBER_FLUSH_FREE_NEVER), 0);

    EXPECT_EQ(peer.receive(), tlv(0x30, tlv(0x04, secret)));
    berval kept{};
    ASSERT_EQ(ber_flatten2(request.get(), &kept, /*alloc*/ 0), 0);
    EXPECT_EQ(Bytes(kept.bv_val, kept.bv_len), Bytes(secret.size() + 4, '\0'));
}

TEST(Layers, FailWithoutASocket)
{
    const LdapHandle handle = handleFor("ldap://127.0.0.1:1");
    Sockbuf* const connection = connectionOf(handle.get());
    const Message request = emptyMessage();
    ASSERT_NE(ber_printf(request.get(), "{}"), -1);

    errno = 0;
    EXPECT_EQ(ber_flush2(connection, request.get(), LBER_FLUSH_FREE_NEVER), -1);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_EQ(nextMessage(connection), std::nullopt);
    EXPECT_EQ(errno, EBADF);
}

TEST(Layers, LeaveNoNumberBehindWhenTheConnectionEnds)
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

TEST(Layers, EndTheConnectionAlsoWhenSomebodyElseHasTheSocket)
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
