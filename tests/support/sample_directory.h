#pragma once

#include <string>

namespace tavo::test {

struct SampleDirectoryOptions
{
    std::string suffix = "dc=example,dc=test";
    int people = 1200;
    /// At least 30; the rest are projects.
    int groups = 48;
};

/// The organisation as LDIF for slapd, and what is in it.
struct SampleDirectory
{
    std::string ldif;
    int people = 0;
    /// The others have no `uid`.
    int peopleWithLogin = 0;
    /// The others have no `mail`.
    int peopleWithMail = 0;
    int groups = 0;
};

/// Makes a realistic organisation, the same one for the same options: people below `ou=people` with names in
/// the scripts of the world, some of whom lack a login, a mail address or a display name; groups
/// (`groupOfNames`) below `ou=groups`, among them `All staff` with everybody, `Newcomers` with no member at
/// all, and `Sales, EMEA` with a comma in its name. It must be loaded unchecked (SlapdOptions::checksSchema),
/// because of the group without members.
SampleDirectory sampleDirectory(const SampleDirectoryOptions& options = {});

} // namespace tavo::test
