# Net::LDAP: net_ldap.pl URL BASE FILTER ATTRIBUTES PAGE_SIZE
use strict;
use warnings;
use Net::LDAP;
use Net::LDAP::Constant qw(LDAP_CONTROL_PAGED);
use Net::LDAP::Control::Paged;
use Time::HiRes qw(clock_gettime CLOCK_MONOTONIC CLOCK_PROCESS_CPUTIME_ID);

my ($url, $base, $filter, $attributes, $size) = @ARGV;
my $begun = clock_gettime(CLOCK_MONOTONIC);
my $connection = Net::LDAP->new($url) or die "$url: $@";
my $bound = $connection->bind;
die $bound->error if $bound->code;
my $connected = clock_gettime(CLOCK_MONOTONIC);
my $processor = clock_gettime(CLOCK_PROCESS_CPUTIME_ID);
my ($entries, $values, $bytes, $first_page) = (0, 0, 0, 0);
my $page = Net::LDAP::Control::Paged->new(size => $size);
while (1) {
    my $found = $connection->search(
        base => $base, filter => $filter, attrs => [split /,/, $attributes], control => [$page]);
    die $found->error if $found->code;
    for my $entry ($found->entries) {
        ++$entries;
        $bytes += length $entry->dn;
        for my $name ($entry->attributes) {
            for my $value ($entry->get_value($name)) {
                ++$values;
                $bytes += length $value;
            }
        }
    }
    $first_page ||= clock_gettime(CLOCK_MONOTONIC);
    my ($answered) = $found->control(LDAP_CONTROL_PAGED);
    my $cookie = $answered->cookie;
    last unless defined $cookie && length $cookie;
    $page->cookie($cookie);
}
printf '{"entries": %d, "values": %d, "bytes": %d, "seconds": %.6f, "processor": %.6f, "first_page": %.6f, "connect": %.6f}'
    . "\n", $entries, $values, $bytes, clock_gettime(CLOCK_MONOTONIC) - $connected,
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID) - $processor, $first_page - $connected, $connected - $begun;
