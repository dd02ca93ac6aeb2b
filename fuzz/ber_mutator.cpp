// Mutations that keep the input's BER well-formed: the fuzzer's own break the lengths of the enclosing
// elements, and such a message is dropped unread.

#include "support/ldap_messages.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <random>
#include <string_view>
#include <vector>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);
extern "C" std::size_t LLVMFuzzerCustomMutator(
    std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned seed);

namespace tavo::fuzz {

namespace {

using test::Bytes;

/// The bytes in front of the messages of every input, which say how to read it.
constexpr std::size_t kPlanSize = 2;
constexpr unsigned kConstructed = 0x20;
constexpr unsigned kSequence = 0x30;
constexpr unsigned kOctetString = 0x04;

struct Node
{
    unsigned tag;
    Bytes content;
    std::vector<Node> children;
};

using Nodes = std::vector<Node>;

std::vector<test::Tlv> elementsOrNone(std::string_view content)
{
    try {
        return test::elements(content);
    } catch (const std::exception&) {
        return {};
    }
}

/// The value of a control is a sequence within a string.
bool mayHaveChildren(const test::Tlv& element)
{
    const bool holdsSequence = element.tag == kOctetString && !element.content.empty() &&
                               element.content[0] == static_cast<char>(kSequence);
    return (element.tag & kConstructed) != 0 || holdsSequence;
}

Nodes parse(std::string_view content)
{
    Nodes nodes;
    for (const test::Tlv& element : elementsOrNone(content)) {
        nodes.push_back(
            {element.tag, element.content, mayHaveChildren(element) ? parse(element.content) : Nodes()});
    }
    return nodes;
}

Bytes encode(const Nodes& nodes)
{
    Bytes bytes;
    for (const Node& node : nodes) {
        bytes += test::tlv(node.tag, node.children.empty() ? node.content : encode(node.children));
    }
    return bytes;
}

class Mutation
{
public:
    explicit Mutation(unsigned seed)
        : m_random(seed)
    {}

    std::size_t below(std::size_t limit) { return m_random() % limit; }

    void apply(Nodes& nodes)
    {
        const std::size_t index = below(nodes.size());
        Node& node = nodes[index];
        constexpr std::size_t kChancesToDescend = 5;
        if (!node.children.empty() && below(kChancesToDescend) != 0) {
            apply(node.children);
            return;
        }
        change(nodes, index);
    }

private:
    void change(Nodes& nodes, std::size_t index)
    {
        const auto at = nodes.begin() + static_cast<std::ptrdiff_t>(index);
        switch (below(6)) {
        case 0:
            nodes.insert(at, Node(*at));
            break;
        case 1:
            nodes.erase(at);
            break;
        case 2:
            std::swap(*at, nodes[below(nodes.size())]);
            break;
        case 3:
            at->tag = static_cast<unsigned char>(at->tag ^ (1U << below(8)));
            break;
        default:
            changeContent(*at);
        }
    }

    static void changeContent(Node& node)
    {
        constexpr std::size_t kGrowth = 24;
        Bytes content = node.children.empty() ? node.content : encode(node.children);
        const std::size_t size = content.size();
        content.resize(size + kGrowth);
        content.resize(
            LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(content.data()), size, content.size()));
        node.content = std::move(content);
        node.children.clear();
    }

    std::minstd_rand m_random;
};

} // namespace

} // namespace tavo::fuzz

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned seed)
{
    using namespace tavo::fuzz;
    constexpr std::size_t kOneInSo = 4;
    Mutation mutation(seed);
    const std::size_t planSize = std::min(size, kPlanSize);
    Nodes nodes = parse({reinterpret_cast<const char*>(data) + planSize, size - planSize});
    if (nodes.empty() || mutation.below(kOneInSo) == 0) {
        return LLVMFuzzerMutate(data, size, maxSize);
    }
    mutation.apply(nodes);
    const Bytes changed = encode(nodes);
    const std::size_t copied = std::min(changed.size(), maxSize - planSize);
    std::memcpy(data + planSize, changed.data(), copied);
    return planSize + copied;
}
