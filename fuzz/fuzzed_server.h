#pragma once

#include "support/ldap_messages.h"

#include <lber.h>
#include <ldap.h>

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace tavo::fuzz {

using test::Bytes;

/// A directory server in the client's own process and thread, which answers with the fuzzer's bytes. Nothing
/// passes through a socket.
///
/// During its lifetime every `ldap_initialize` of the process returns a handle that is connected to it. After
/// its last bytes the connection ends.
class FuzzedServer
{
public:
    struct Speech
    {
        /// The answers to requests that `answer` leaves alone: LDAP messages, sent one by one as the client
        /// asks.
        Bytes bytes;

        /// Sends `bytes` unchanged. Otherwise each message gets the id of the request that it answers, unless
        /// its own is 0, so that the client doesn't drop it unread; a message that can't be parsed stays
        /// unchanged.
        bool isRaw = false;

        /// Each read returns one byte.
        bool comesInSingleBytes = false;
    };

    /// The answer to a request; empty for those that are left to the fuzzer's bytes.
    using Answer = std::function<Bytes(const test::Request&)>;

    explicit FuzzedServer(Speech speech, Answer answer = {});
    /// Waits as waitForClose() does.
    ~FuzzedServer();
    FuzzedServer(const FuzzedServer&) = delete;
    FuzzedServer& operator=(const FuzzedServer&) = delete;

    /// Blocks until the client has closed every connection: until then a search may go on in the background.
    void waitForClose();

    /// The unencrypted requests that were left to the fuzzer's bytes.
    const std::vector<test::Request>& requests() const { return m_requests; }

    /// Whether every request so far was well-formed. Malformed ones are not in requests().
    bool understands() const { return m_understands; }

    /// Connects a new handle, as `ldap_initialize` does.
    static int connect(LDAP** handle);

    /// Frees the element when this server is destroyed.
    static void keep(BerElement* element);
    /// Not that element: the library frees it itself.
    static void drop(BerElement* element);

    /// In place of recv(2) and send(2) on the library's socket.
    static ssize_t received(char* buffer, std::size_t size, bool isPeeking);
    static ssize_t sent(std::string_view bytes);

    /// Tracks a result from when the client library returns it until it is freed.
    static void noteResult(LDAPMessage* result);
    static void forgetResult(LDAPMessage* result);

private:
    static int setUp(Sockbuf_IO_Desc* layer, void* server);
    static int remove(Sockbuf_IO_Desc* layer);
    static int control(Sockbuf_IO_Desc* layer, int option, void* argument);
    static ber_slen_t read(Sockbuf_IO_Desc* layer, void* buffer, ber_len_t size);
    static ber_slen_t write(Sockbuf_IO_Desc* layer, void* buffer, ber_len_t size);
    static int close(Sockbuf_IO_Desc* layer);

    void receive(std::string_view bytes);
    void takeMessage(std::string_view message);
    void take(const test::Request& request);
    std::size_t send(char* buffer, std::size_t size);
    Bytes nextMessage();

    static FuzzedServer* s_current;

    Speech m_speech;
    Answer m_answer;
    /// How much of the speech has been sent.
    std::size_t m_said = 0;
    Bytes m_received;
    Bytes m_sending;
    std::int64_t m_messageId = 0;
    bool m_isEncrypted = false;
    bool m_understands = true;
    std::vector<test::Request> m_requests;
    std::vector<BerElement*> m_kept;

    std::mutex m_mutex;
    std::condition_variable m_closed;
    int m_connections = 0;
    std::set<LDAPMessage*> m_results;
};

/// A result message with this code, no DN and no text.
Bytes resultMessage(std::int64_t messageId, test::Answer operation, std::int64_t code);

/// An entry with one attribute of one value.
Bytes entryMessage(
    std::int64_t messageId, std::string_view dn, std::string_view name, std::string_view value);

/// Answers the requests of a manager's creation, for the root DSE and the bind, and leaves the rest alone.
FuzzedServer::Answer managerGreeting(bool isActiveDirectory);

} // namespace tavo::fuzz
