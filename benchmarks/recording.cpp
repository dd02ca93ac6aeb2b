#include "recording.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace tavo::bench {

namespace {

/// Below this the C library gives out memory without asking the kernel for it anew each time.
constexpr std::size_t kPiece = 120000;

std::string lowerCased(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
        [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c); });
    return text;
}

std::string hexadecimal(std::string_view bytes)
{
    static constexpr std::string_view digits = "0123456789abcdef";
    std::string result;
    for (const char byte : bytes) {
        result += digits[static_cast<unsigned char>(byte) >> 4];
        result += digits[static_cast<unsigned char>(byte) & 0xF];
    }
    return result;
}

std::string questionOf(const test::SearchRequest& search)
{
    std::vector<std::string> attributes;
    std::transform(
        search.attributes.begin(), search.attributes.end(), std::back_inserter(attributes), lowerCased);
    std::sort(attributes.begin(), attributes.end());
    std::string result = "search " + lowerCased(search.base) + " scope " + std::to_string(search.scope) +
                         " filter " + lowerCased(search.filter) + " attributes";
    for (const std::string& attribute : attributes) {
        result += ' ' + attribute;
    }
    return result;
}

/// The length of an element's content, and where that begins.
struct Header
{
    std::size_t size;
    std::size_t contentLength;
};

Header headerOf(std::string_view element)
{
    const auto first = static_cast<unsigned char>(element.at(1));
    if (first < 0x80) {
        return {2, first};
    }
    const std::size_t count = first & 0x7FU;
    std::size_t length = 0;
    for (const char byte : element.substr(2, count)) {
        length = length << 8 | static_cast<unsigned char>(byte);
    }
    return {2 + count, length};
}

/// Appends the length in as many bytes as the server took, or in more where they are too few.
void appendLength(std::size_t length, std::size_t recordedBytes, std::string& result)
{
    std::size_t count = recordedBytes - 1;
    if (count == 0 && length < 0x80) {
        result += static_cast<char>(length);
        return;
    }
    count = std::max<std::size_t>(count, 1);
    while (count < sizeof length && length >> (8 * count) != 0) {
        ++count;
    }
    result += static_cast<char>(0x80U | count);
    while (count-- > 0) {
        result += static_cast<char>(length >> (8 * count) & 0xFF);
    }
}

template <class Number>
void write(std::ofstream& file, Number number)
{
    file.write(reinterpret_cast<const char*>(&number), sizeof number);
}

template <class Number>
Number take(std::string_view& bytes)
{
    Number number;
    std::memcpy(&number, bytes.substr(0, sizeof number).data(), sizeof number);
    bytes.remove_prefix(sizeof number);
    return number;
}

std::string_view map(const char* path)
{
    const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
    struct stat status = {};
    if (descriptor < 0 || fstat(descriptor, &status) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    void* bytes = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, descriptor, 0);
    close(descriptor);
    if (bytes == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return {static_cast<const char*>(bytes), size};
}

} // namespace

std::string questionOf(const test::Request& request)
{
    if (const auto* bind = std::get_if<test::BindRequest>(&request.operation)) {
        return "bind " + bind->dn;
    }
    if (const auto* extended = std::get_if<test::ExtendedRequest>(&request.operation)) {
        return "extended " + extended->oid;
    }
    const auto* search = std::get_if<test::SearchRequest>(&request.operation);
    if (search == nullptr) {
        return test::describe(request);
    }
    std::string question = questionOf(*search);
    if (const std::optional<test::PageRequest> page = test::pageRequested(request)) {
        question += " page " + std::to_string(page->size) + " after " + hexadecimal(page->cookie);
    }
    return question;
}

bool endsOperation(std::string_view message)
{
    const std::size_t id = headerOf(message).size;
    const auto operation =
        static_cast<unsigned char>(message.at(id + 2 + static_cast<unsigned char>(message.at(id + 1))));
    return operation != static_cast<unsigned>(test::Answer::searchEntry) &&
           operation != static_cast<unsigned>(test::Answer::searchReference) &&
           operation != static_cast<unsigned>(test::Answer::intermediateResponse);
}

void sendAddressed(
    std::int64_t messageId, std::string_view answer, const std::function<void(std::string_view)>& send)
{
    const std::string id = test::berNumber(messageId);
    std::string piece;
    piece.reserve(kPiece);
    while (!answer.empty()) {
        const Header header = headerOf(answer);
        const std::string_view content = answer.substr(header.size, header.contentLength);
        const std::size_t recordedId = 2 + static_cast<std::size_t>(content.at(1));
        const std::string_view operation = content.substr(recordedId);
        piece += answer.front();
        appendLength(operation.size() + id.size(), header.size - 1, piece);
        piece += id;
        if (piece.size() + operation.size() > kPiece) {
            send(piece);
            piece.clear();
        }
        if (operation.size() > kPiece) {
            send(operation);
        } else {
            piece += operation;
        }
        answer.remove_prefix(header.size + header.contentLength);
    }
    send(piece);
}

Recorder::Recorder(const char* file)
    : m_file(file, std::ios::binary)
{
    if (!m_file) {
        throw std::runtime_error(std::string("cannot write ") + file);
    }
    m_file.exceptions(std::ios::failbit | std::ios::badbit);
}

void Recorder::add(const std::string& question, std::string_view answer)
{
    if (!m_questions.insert(question).second) {
        return;
    }
    write(m_file, static_cast<std::uint64_t>(question.size()));
    write(m_file, static_cast<std::uint64_t>(answer.size()));
    m_file << question << answer << std::flush;
}

Recordings::Recordings(std::span<char*> files)
{
    for (const char* file : files) {
        m_files.push_back(map(file));
        index(m_files.back());
    }
}

Recordings::~Recordings()
{
    for (const std::string_view file : m_files) {
        munmap(const_cast<char*>(file.data()), file.size());
    }
}

void Recordings::index(std::string_view file)
{
    while (!file.empty()) {
        const auto questionSize = take<std::uint64_t>(file);
        const auto answerSize = take<std::uint64_t>(file);
        m_answers.emplace(file.substr(0, questionSize), file.substr(questionSize, answerSize));
        file.remove_prefix(questionSize + answerSize);
    }
}

std::optional<std::string_view> Recordings::answerTo(const std::string& question) const
{
    const auto found = m_answers.find(question);
    return found == m_answers.end() ? std::nullopt : std::optional(found->second);
}

} // namespace tavo::bench
