#include "fuzzed_server.h"

#include "invariant.h"

#include <openldap.h>

#include <dlfcn.h>
#include <sanitizer/lsan_interface.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <utility>

namespace {

/// The function of this name in the next library after this program.
template <class Function>
Function* next(Function*, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

// Functions of the client library and of the system that the linker replaces, only for our library, and originals.

int __wrap_ldap_initialize(LDAP** handle, const char* url);
char* __real_ldap_first_attribute(LDAP* handle, LDAPMessage* entry, BerElement** element);
char* __wrap_ldap_first_attribute(LDAP* handle, LDAPMessage* entry, BerElement** element);
void __real_ber_free(BerElement* element, int freesBuffer);
void __wrap_ber_free(BerElement* element, int freesBuffer);
ssize_t __wrap_recv(int socket, void* buffer, std::size_t size, int flags);
ssize_t __wrap_send(int socket, const void* data, std::size_t size, int flags);

int __wrap_ldap_initialize(LDAP** handle, const char*) { return tavo::fuzz::FuzzedServer::connect(handle); }

// By design, the library doesn't free this element when it reads all attributes; freeing it here saves a
// suppression for LeakSanitizer.
char* __wrap_ldap_first_attribute(LDAP* handle, LDAPMessage* entry, BerElement** element)
{
    char* name = __real_ldap_first_attribute(handle, entry, element);
    tavo::fuzz::FuzzedServer::keep(*element);
    return name;
}

void __wrap_ber_free(BerElement* element, int freesBuffer)
{
    tavo::fuzz::FuzzedServer::drop(element);
    __real_ber_free(element, freesBuffer);
}

// The library reads and writes its socket itself.
ssize_t __wrap_recv(int, void* buffer, std::size_t size, int flags)
{
    return tavo::fuzz::FuzzedServer::received(static_cast<char*>(buffer), size, (flags & MSG_PEEK) != 0);
}

ssize_t __wrap_send(int, const void* data, std::size_t size, int)
{
    return tavo::fuzz::FuzzedServer::sent({static_cast<const char*>(data), size});
}

// The client library itself calls these, too, so the loader replaces them for every caller. libldap leaks
// requests whose answer it can't decode, and the texts of unsolicited messages; so nothing that it allocates
// there counts as a leak, and this file checks instead that the results are freed.
__attribute__((visibility("default"))) ber_int_t ldap_send_initial_request(
    LDAP* handle, ber_tag_t type, const char* dn, BerElement* request, ber_int_t messageId);
__attribute__((visibility("default"))) int ldap_result(
    LDAP* handle, int messageId, int all, timeval* timeout, LDAPMessage** result);
__attribute__((visibility("default"))) int ldap_msgfree(LDAPMessage* result);

ber_int_t ldap_send_initial_request(
    LDAP* handle, ber_tag_t type, const char* dn, BerElement* request, ber_int_t messageId)
{
    static const auto original = next(&ldap_send_initial_request, "ldap_send_initial_request");
    const __lsan::ScopedDisabler ignoreLeaks;
    return original(handle, type, dn, request, messageId);
}

int ldap_result(LDAP* handle, int messageId, int all, timeval* timeout, LDAPMessage** result)
{
    static const auto original = next(&ldap_result, "ldap_result");
    const __lsan::ScopedDisabler ignoreLeaks;
    const int rc = original(handle, messageId, all, timeout, result);
    tavo::fuzz::FuzzedServer::noteResult(*result);
    return rc;
}

int ldap_msgfree(LDAPMessage* result)
{
    static const auto original = next(&ldap_msgfree, "ldap_msgfree");
    tavo::fuzz::FuzzedServer::forgetResult(result);
    return original(result);
}

} // extern "C"

namespace tavo::fuzz {

namespace {

constexpr unsigned kSequence = 0x30;
constexpr unsigned kInteger = 0x02;
constexpr ber_socket_t kNoSocket = -1;

/// A socket that is always ready, since nobody reads what is in it: libldap never waits on it, and a check
/// whether it is closed says that it isn't.
int readySocket()
{
    static const int socket = [] {
        std::array<int, 2> ends{};
        require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0, "sockets can be had");
        require(write(ends[1], "", 1) == 1, "a byte can be sent");
        return ends[0];
    }();
    return socket;
}

/// The message with another id; unchanged when it has none, or 0.
Bytes addressed(Bytes message, std::int64_t messageId)
{
    try {
        const auto outer = test::elements(message);
        auto parts = test::elements(outer.at(0).content);
        if (parts.empty() || parts[0].tag != kInteger || test::numberIn(parts[0].content) == 0) {
            return message;
        }
        Bytes content = test::berNumber(messageId);
        for (std::size_t i = 1; i < parts.size(); ++i) {
            content += test::tlv(parts[i].tag, parts[i].content);
        }
        return test::tlv(kSequence, content);
    } catch (const std::exception&) {
        return message;
    }
}

std::size_t lengthOfFirst(std::string_view bytes)
{
    try {
        const std::size_t length = test::firstElementLength(bytes);
        return length != 0 ? length : bytes.size();
    } catch (const std::exception&) {
        return bytes.size();
    }
}

} // namespace

FuzzedServer* FuzzedServer::s_current = nullptr;

FuzzedServer::FuzzedServer(Speech speech, Answer answer)
    : m_speech(std::move(speech))
    , m_answer(std::move(answer))
{
    require(s_current == nullptr, "one server at a time");
    s_current = this;
}

FuzzedServer::~FuzzedServer()
{
    waitForClose();
    s_current = nullptr;
    for (BerElement* element : m_kept) {
        __real_ber_free(element, 0);
    }
}

int FuzzedServer::connect(LDAP** handle)
{
    require(s_current != nullptr, "there is a server");
    static Sockbuf_IO layer{&FuzzedServer::setUp, &FuzzedServer::remove, &FuzzedServer::control,
        &FuzzedServer::read, &FuzzedServer::write, &FuzzedServer::close};

    // The URL is for the second connection that libldap tries when this one has ended.
    const int rc = ldap_init_fd(dup(readySocket()), LDAP_PROTO_EXT, "ldapi://%2Fnonexistent", handle);
    if (rc != LDAP_SUCCESS) {
        return rc;
    }
    Sockbuf* socket = nullptr;
    ldap_get_option(*handle, LDAP_OPT_SOCKBUF, &socket);
    ber_sockbuf_add_io(socket, &layer, LBER_SBIOD_LEVEL_PROVIDER, s_current);
    return LDAP_SUCCESS;
}

void FuzzedServer::keep(BerElement* element)
{
    require(s_current != nullptr, "there is a server");
    if (element != nullptr) {
        s_current->m_kept.push_back(element);
    }
}

void FuzzedServer::drop(BerElement* element)
{
    if (s_current != nullptr) {
        const std::lock_guard lock(s_current->m_mutex);
        auto& kept = s_current->m_kept;
        kept.erase(std::remove(kept.begin(), kept.end(), element), kept.end());
    }
}

int FuzzedServer::setUp(Sockbuf_IO_Desc* layer, void* server)
{
    layer->sbiod_pvt = server;
    auto* self = static_cast<FuzzedServer*>(server);
    const std::lock_guard lock(self->m_mutex);
    ++self->m_connections;
    return 0;
}

int FuzzedServer::remove(Sockbuf_IO_Desc* layer)
{
    auto* self = static_cast<FuzzedServer*>(layer->sbiod_pvt);
    const std::lock_guard lock(self->m_mutex);
    --self->m_connections;
    self->m_closed.notify_all();
    return 0;
}

void FuzzedServer::waitForClose()
{
    std::unique_lock lock(m_mutex);
    m_closed.wait(lock, [this] { return m_connections == 0; });
    require(m_results.empty(), "every result is freed");
}

void FuzzedServer::noteResult(LDAPMessage* result)
{
    if (s_current != nullptr && result != nullptr) {
        const std::lock_guard lock(s_current->m_mutex);
        s_current->m_results.insert(result);
    }
}

void FuzzedServer::forgetResult(LDAPMessage* result)
{
    if (s_current != nullptr) {
        const std::lock_guard lock(s_current->m_mutex);
        s_current->m_results.erase(result);
    }
}

int FuzzedServer::control(Sockbuf_IO_Desc*, int option, void*)
{
    return option == LBER_SB_OPT_DATA_READY ? 1 : 0;
}

ssize_t FuzzedServer::received(char* buffer, std::size_t size, bool isPeeking)
{
    require(s_current != nullptr, "there is a server");
    if (!isPeeking) {
        return static_cast<ssize_t>(s_current->send(buffer, size));
    }
    if (s_current->m_sending.empty()) {
        errno = EAGAIN;
        return -1;
    }
    *buffer = s_current->m_sending.front();
    return 1;
}

ssize_t FuzzedServer::sent(std::string_view bytes)
{
    require(s_current != nullptr, "there is a server");
    s_current->receive(bytes);
    return static_cast<ssize_t>(bytes.size());
}

ber_slen_t FuzzedServer::read(Sockbuf_IO_Desc* layer, void* buffer, ber_len_t size)
{
    auto* server = static_cast<FuzzedServer*>(layer->sbiod_pvt);
    return static_cast<ber_slen_t>(server->send(static_cast<char*>(buffer), size));
}

ber_slen_t FuzzedServer::write(Sockbuf_IO_Desc* layer, void* buffer, ber_len_t size)
{
    auto* server = static_cast<FuzzedServer*>(layer->sbiod_pvt);
    server->receive({static_cast<const char*>(buffer), size});
    return static_cast<ber_slen_t>(size);
}

/// The library closes its socket before; a handle without the library still has it.
int FuzzedServer::close(Sockbuf_IO_Desc* layer)
{
    ber_socket_t socket = kNoSocket;
    ber_sockbuf_ctrl(layer->sbiod_sb, LBER_SB_OPT_GET_FD, &socket);
    return socket == kNoSocket ? 0 : ::close(socket);
}

void FuzzedServer::receive(std::string_view bytes)
{
    m_received += bytes;
    m_isEncrypted = m_isEncrypted || m_received[0] != static_cast<char>(kSequence);
    while (!m_isEncrypted && !m_received.empty()) {
        const std::size_t length = test::firstElementLength(m_received);
        if (length == 0) {
            return;
        }
        takeMessage(std::string_view(m_received).substr(0, length));
        m_received.erase(0, length);
    }
}

void FuzzedServer::takeMessage(std::string_view message)
{
    try {
        take(test::decodeRequest(message));
    } catch (const std::exception&) {
        m_understands = false;
    }
}

void FuzzedServer::take(const test::Request& request)
{
    if (request.is<test::UnbindRequest>() || request.is<test::AbandonRequest>()) {
        return;
    }
    m_messageId = request.messageId;
    Bytes answer = m_answer ? m_answer(request) : Bytes();
    if (!answer.empty()) {
        m_sending += answer;
        return;
    }
    m_requests.push_back(request);
}

std::size_t FuzzedServer::send(char* buffer, std::size_t size)
{
    if (m_sending.empty()) {
        m_sending = nextMessage();
    }
    const std::size_t most = m_speech.comesInSingleBytes ? 1 : m_sending.size();
    const std::size_t sent = std::min({size, most, m_sending.size()});
    std::copy_n(m_sending.begin(), sent, buffer);
    m_sending.erase(0, sent);
    return sent;
}

Bytes FuzzedServer::nextMessage()
{
    const std::string_view rest = std::string_view(m_speech.bytes).substr(m_said);
    const std::size_t length = m_speech.isRaw || m_isEncrypted ? rest.size() : lengthOfFirst(rest);
    m_said += length;
    Bytes message(rest.substr(0, length));
    return m_speech.isRaw || m_isEncrypted ? message : addressed(std::move(message), m_messageId);
}

Bytes resultMessage(std::int64_t messageId, test::Answer operation, std::int64_t code)
{
    constexpr unsigned kEnumerated = 0x0a;
    constexpr unsigned kOctetString = 0x04;
    const Bytes content =
        test::berNumber(code, kEnumerated) + test::tlv(kOctetString, "") + test::tlv(kOctetString, "");
    return test::encodeMessage(messageId, test::tlv(static_cast<unsigned>(operation), content), {});
}

Bytes entryMessage(std::int64_t messageId, std::string_view dn, std::string_view name, std::string_view value)
{
    constexpr unsigned kOctetString = 0x04;
    constexpr unsigned kSet = 0x31;
    const Bytes attribute =
        test::tlv(kSequence, test::tlv(kOctetString, name) + test::tlv(kSet, test::tlv(kOctetString, value)));
    const Bytes entry = test::tlv(kOctetString, dn) + test::tlv(kSequence, attribute);
    return test::encodeMessage(
        messageId, test::tlv(static_cast<unsigned>(test::Answer::searchEntry), entry), {});
}

FuzzedServer::Answer managerGreeting(bool isActiveDirectory)
{
    return [isActiveDirectory](const test::Request& request) -> Bytes {
        const std::int64_t id = request.messageId;
        if (request.is<test::BindRequest>()) {
            return resultMessage(id, test::Answer::bindResponse, LDAP_SUCCESS);
        }
        if (!request.is<test::SearchRequest>() || !request.controls.empty()) {
            return {};
        }
        const char* name = isActiveDirectory ? "forestFunctionality" : "objectClass";
        return entryMessage(id, "", name, "7") + resultMessage(id, test::Answer::searchDone, LDAP_SUCCESS);
    };
}

} // namespace tavo::fuzz
