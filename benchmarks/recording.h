#pragma once

#include "support/ldap_messages.h"

#include <cstdint>
#include <fstream>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace tavo::bench {

/// What a request asks for, as text: the same for all clients that want the same.
std::string questionOf(const test::Request& request);

/// Whether a server's message is the last answer to a request.
bool endsOperation(std::string_view message);

/// Passes the messages of a recorded answer on to `send`, each with another message id, in a few large pieces.
void sendAddressed(
    std::int64_t messageId, std::string_view answer, const std::function<void(std::string_view)>& send);

/// Writes questions and answers to a file.
class Recorder
{
public:
    /// \throws std::runtime_error when the file can't be made
    explicit Recorder(const char* file);

    /// Keeps the first answer to each question.
    /// \throws std::ios_base::failure when it can't be written
    void add(const std::string& question, std::string_view answer);

private:
    std::ofstream m_file;
    std::unordered_set<std::string> m_questions;
};

/// The recorded answers of several files, which stay mapped into memory as long as this object lives. Thread-safe.
class Recordings
{
public:
    /// \throws std::system_error when a file can't be read
    explicit Recordings(std::span<char*> files);
    ~Recordings();
    Recordings(const Recordings&) = delete;
    Recordings& operator=(const Recordings&) = delete;

    std::optional<std::string_view> answerTo(const std::string& question) const;

private:
    void index(std::string_view file);

    std::vector<std::string_view> m_files;
    std::unordered_map<std::string, std::string_view> m_answers;
};

} // namespace tavo::bench
