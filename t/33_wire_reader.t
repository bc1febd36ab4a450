# The wire reader of new($bytes) and unpack against the protobuf runtime's own
# parser: t/cpp/wire_reader.cc checks the documented differences and limits
# and compares both on deterministic mutations of valid encodings.  Set
# QEL_WIRE_MUTATIONS for more mutations per seed encoding (default 20000) and
# QEL_WIRE_SEED for another seed.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(:all);

my $CLASS = 'quillon_event_log::QuillonEventLog';
require quillon_event_log::QuillonEventLog;

my ($dir, $bin) = build_cpp_ok('t/cpp/wire_reader.cc', objects => ['src/wire_reader.o', 'src/wire_format.o', 'src/field_table.o']);
relay_tap($bin, dir => $dir, args => [$ENV{QEL_WIRE_MUTATIONS} || 20000, $ENV{QEL_WIRE_SEED} || 1]);

# The same rules as Perl sees them.
my $r = $CLASS->new;
is $r->unpack("\x02\x00"), 1, 'unpack reads a field number 0';
is hexs($r->pack), '0200', 'and pack writes it again';
is $r->debug_string, qq{0: ""\n}, 'debug_string shows it as unknown field 0';
is hexs($CLASS->new("\x05abcd\x0a\x01z")->pack), '0a017a0561626364', 'new keeps it too, after the known fields';
is $r->unpack("\x00"), 0, 'a zero byte where a tag should be fails';
is $r->unpack("\x0a\x05ab"), 0, 'a string running past the input fails';
is join(',', $r->has_bot_name, $r->bot_name), '1,ab', '... keeping the field, with the bytes that were there';
is $r->unpack("\x8a\x80\x80\x80\x80\x00\x01z"), 1, 'a tag written in six bytes is read';
is $r->bot_name, 'z', '... as its low 32 bits';
is $r->unpack("\x98\x01\x85\x80\x80\x80\x80\x80\x80\x80\x80\x01"), 1, 'a ten-byte varint for a uint32 field is read';
is $r->src_port, 5, '... as its low 32 bits';
is $r->unpack("\xc8\x01\x80\x80\x80\x80\x80\x80\x80\x80\x80\x01"), 1, 'a ten-byte varint for a bool field is read';
is $r->mobile_is_app, 1, '... and any non-zero varint is true, high bits included';
is $r->unpack("\x98\x01\x80\x80\x80\x80\x80\x80\x80\x80\x80\x80\x01"), 0, 'an eleven-byte varint fails';
{
    my $limit = 64 * 1024 * 1024;
    my $bytes = "\x0a" . varint($limit - 5) . ('a' x ($limit - 5));
    is length($bytes), $limit, 'an input of 64 MiB';
    is $r->unpack($bytes), 1, '... is read';
    is length($r->bot_name), $limit - 5, '... whole';
    $bytes .= "\x98\x01\x01";
    my $stderr = '';
    {
        open my $saved, '>&', \*STDERR or die "dup: $!";
        close STDERR;
        open STDERR, '>', \$stderr or die "stderr: $!";
        is $r->unpack($bytes), 0, 'an input of 64 MiB and 3 bytes fails';
        close STDERR;
        open STDERR, '>&', $saved or die "restore: $!";
    }
    is join(',', $r->length, $r->has_src_port), "$limit,0", '... keeping what was read before the limit';
}

done_testing;
