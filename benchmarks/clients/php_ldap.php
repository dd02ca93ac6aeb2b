<?php
// PHP's extension: php_ldap.php URL BASE FILTER ATTRIBUTES PAGE_SIZE
function seconds(): float
{
    return hrtime(true) / 1e9;
}

function processorSeconds(): float
{
    $usage = getrusage();
    return $usage['ru_utime.tv_sec'] + $usage['ru_stime.tv_sec']
        + ($usage['ru_utime.tv_usec'] + $usage['ru_stime.tv_usec']) / 1e6;
}

[, $url, $base, $filter, $attributes, $size] = $argv;
$begun = seconds();
$connection = ldap_connect($url);
ldap_set_option($connection, LDAP_OPT_PROTOCOL_VERSION, 3);
ldap_bind($connection) or exit(1);
$connected = seconds();
$processor = processorSeconds();
$entries = $values = $bytes = 0;
$firstPage = null;
$cookie = '';
do {
    $control = ['oid' => LDAP_CONTROL_PAGEDRESULTS, 'value' => ['size' => (int)$size, 'cookie' => $cookie]];
    $answer = ldap_search($connection, $base, $filter, explode(',', $attributes), 0, 0, 0, LDAP_DEREF_NEVER, [$control]);
    foreach (ldap_get_entries($connection, $answer) as $entry) {
        if (!is_array($entry)) {
            continue;
        }
        ++$entries;
        $bytes += strlen($entry['dn']);
        for ($i = 0; $i < $entry['count']; ++$i) {
            $found = $entry[$entry[$i]];
            $values += $found['count'];
            for ($j = 0; $j < $found['count']; ++$j) {
                $bytes += strlen($found[$j]);
            }
        }
    }
    $firstPage ??= seconds();
    ldap_parse_result($connection, $answer, $code, $matched, $message, $referrals, $controls) or exit(1);
    $cookie = $controls[LDAP_CONTROL_PAGEDRESULTS]['value']['cookie'] ?? '';
} while ($cookie !== '');
echo json_encode([
    'entries' => $entries, 'values' => $values, 'bytes' => $bytes, 'seconds' => seconds() - $connected,
    'processor' => processorSeconds() - $processor, 'first_page' => $firstPage - $connected,
    'connect' => $connected - $begun]), "\n";
