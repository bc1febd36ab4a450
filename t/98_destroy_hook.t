# A record whose class's DESTROY is still the module's own is freed by its
# handle's mark without the DESTROY call.  Every other case must still see
# DESTROY called, once, with the record still readable in it: a DESTROY
# wrapped or replaced (before or after the objects were made), a subclass with
# a DESTROY of its own, and objects alive at global destruction.
use strict;
use warnings;
use Test::More;
use lib 't/lib';
use QelTest;
use quillon_event_log::QuillonEventLog;

my $C = 'quillon_event_log::QuillonEventLog';
my $own = \&quillon_event_log::QuillonEventLog::DESTROY;

# ---- a wrapped DESTROY is called ---------------------------------------------

{
    my @seen;
    my $early = $C->new({ bot_name => 'made before the wrapper' });
    {
        no warnings 'redefine';
        local *quillon_event_log::QuillonEventLog::DESTROY = sub {
            push @seen, scalar $_[0]->bot_name;
            goto &$own;
        };
        my $r = $C->new({ bot_name => 'first' });
        undef $r;
        is_deeply \@seen, ['first'], 'a wrapped DESTROY is called on an implicit free, with the record still there';
        $C->new({ bot_name => 'second' });
        is_deeply \@seen, [ 'first', 'second' ], 'a temporary record calls the wrapped DESTROY too';
        undef $early;
        is_deeply \@seen, [ 'first', 'second', 'made before the wrapper' ],
            'an object made before the wrapper calls it';
        my $x = $C->new({ bot_name => 'x' });
        $x->DESTROY;
        is_deeply \@seen, [ 'first', 'second', 'made before the wrapper', 'x' ], 'an explicit call goes through the wrapper';
        undef $x;
        is scalar @seen, 5, 'the automatic call after an explicit one reaches the wrapper as well';
        ok !defined $seen[4], 'and finds the handle empty';
    }
    my $r = $C->new({ bot_name => 'after' });
    undef $r;
    is scalar @seen, 5, 'with the wrapper gone, DESTROY is the module\'s own again';
}

# ---- subclasses ----------------------------------------------------------------

package Sub::WithDestroy {
    our @ISA = ('quillon_event_log::QuillonEventLog');
    our @seen;
    sub DESTROY { push @seen, scalar $_[0]->host; $_[0]->SUPER::DESTROY }
}
package Sub::Plain {
    our @ISA = ('quillon_event_log::QuillonEventLog');
}

{
    my $o = bless $C->new({ host => 'sub' }), 'Sub::WithDestroy';
    undef $o;
    is_deeply \@Sub::WithDestroy::seen, ['sub'], 'a subclass\'s own DESTROY is called';
    my $p = bless $C->new({ host => 'plain' }), 'Sub::Plain';
    is $p->host, 'plain', 'a subclass without DESTROY reads its record';
    undef $p;
    pass 'and is freed quietly';
}

# ---- explicit DESTROY, then the free -------------------------------------------

{
    my $o = $C->new({ host => 'h' });
    $o->DESTROY;
    my @g = $o->host;
    is scalar @g, 0, 'after an explicit DESTROY the handle is empty';
    is ${$o}, 0, 'and holds 0';
    undef $o;
    pass 'freeing it afterwards does not free the record again';
}

# ---- global destruction --------------------------------------------------------

{
    my $script = <<'EOS';
use quillon_event_log::QuillonEventLog;
my $own = \&quillon_event_log::QuillonEventLog::DESTROY;
our $kept = quillon_event_log::QuillonEventLog->new({ host => 'global' });
{
    no warnings 'redefine';
    *quillon_event_log::QuillonEventLog::DESTROY = sub { print "DESTROY ", $_[0]->host, "\n"; goto &$own };
}
my $lexical = quillon_event_log::QuillonEventLog->new({ host => 'lexical' });
print "end\n";
EOS
    my $out = run_perl($script);
    is $out, "end\nDESTROY lexical\nDESTROY global\n", 'objects left to the end of the program are destroyed through DESTROY';
}

sub run_perl {
    my ($code) = @_;
    my @inc = map { "-I$_" } grep { !ref } @INC;
    open my $fh, '-|', $^X, @inc, '-e', $code or die "cannot run $^X: $!";
    local $/;
    my $out = <$fh>;
    close $fh;
    return $out;
}

done_testing;
