"""What is in the directories that are measured: the sets that clients read, and their entries."""
import enum

SUFFIX = "dc=example,dc=test"
USER_ATTRIBUTES = "displayName,gecos,mail,uid"
USER_FILTER = "(objectClass=inetOrgPerson)"
GROUP_FILTER = "(objectClass=groupOfNames)"

GIVEN = ("Anna", "Jürgen", "Hélène", "Peter", "Małgorzata", "Sarah", "Дмитрий", "Martin", "Begoña", "Thomas", "伟", "Eva")
FAMILY = ("Smith", "Müller", "Lefèvre", "Johnson", "Dvořák", "Brown", "Иванова", "Weber", "Núñez", "Wilson", "王", "Berg")


class Set:
    """A part of the directory that is read as a whole: how it is asked for, and what must come."""

    def __init__(self, name, kind, entries, members=0):
        self.name, self.kind, self.entries, self.members = name, kind, entries, members
        self.base = f"ou={name},{SUFFIX}"
        self.filter = USER_FILTER if kind == "users" else GROUP_FILTER
        self.attributes = USER_ATTRIBUTES if kind == "users" else "member"

    @property
    def values(self):
        """Each user has a login, a display name and an address, and no gecos."""
        return 3 * self.entries if self.kind == "users" else self.members * self.entries

    def ldif(self):
        yield f"dn: {self.base}\nobjectClass: organizationalUnit\nou: {self.name}\n\n"
        for number in range(self.entries):
            yield self.user(number) if self.kind == "users" else self.group(number)

    def user(self, number):
        given, family = GIVEN[number % len(GIVEN)], FAMILY[number // len(GIVEN) % len(FAMILY)]
        login = f"user.{number:07}"
        return (f"dn: uid={login},{self.base}\nobjectClass: inetOrgPerson\nuid: {login}\n"
                f"{text('cn', f'{given} {family}')}{text('sn', family)}{text('givenName', given)}"
                f"{text('displayName', f'{given} {family}')}mail: {login}@mail.example.test\n"
                f"employeeNumber: {number}\n\n")

    def group(self, number):
        members = "".join(f"member: uid=user.{(number * 7 + member) % 100000:07},ou=people,{SUFFIX}\n"
                          for member in range(self.members))
        return f"dn: cn=Group {number},{self.base}\nobjectClass: groupOfNames\ncn: Group {number}\n{members}\n"


def text(attribute, value):
    """A line of LDIF. slapadd takes UTF-8 as it is."""
    return f"{attribute}: {value}\n"


def in_words(name):
    """What the set of this name is."""
    kind, *numbers = name.split("-")
    if kind == "users":
        return f"{int(numbers[0]):,} users"
    count = "one group" if numbers[0] == "1" else f"{int(numbers[0]):,} groups"
    return f"{count} of {int(numbers[2]):,}"


def users(count):
    return Set(f"users-{count}", "users", count)


def groups(count, members):
    return Set(f"groups-{count}-of-{members}", "groups", count, members)


# The fewer and the more entries of the runs whose difference is counted.
COUNTED = {"users": (users(1000), users(5000)), "groups": (groups(100, 50), groups(500, 50))}
GROWING = [users(1000), users(10000), users(100000), users(1000000)]
LARGE_USERS = GROWING[2]


class Scale(enum.Enum):
    """How much a run measures; each has a directory of its own."""

    quick = 1
    standard = 2
    large = 3

    def compared(self):
        """The sets that all clients read."""
        return {Scale.quick: [users(10000), groups(500, 50), groups(1, 10000)],
                Scale.standard: [LARGE_USERS, groups(2000, 50), groups(1, 100000)]}[self]

    def sets(self):
        """The sets of its directory."""
        if self is Scale.large:
            return GROWING[3:]
        more = [users(1000), users(5000), groups(100, 50)] if self is Scale.quick else []
        return more + self.compared()
