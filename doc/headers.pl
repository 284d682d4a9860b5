#!/usr/bin/env perl
# What the public headers say, for readers other than the compiler.
#
#   headers.pl man DIR OVERVIEW HEADER...   DIR/qvcl_NAME.3 for every header whose page the page
#                                           OVERVIEW lists, with the date of that one, and a page that
#                                           is a reference to it for every name declared there
#   headers.pl errors HEADER...             "FUNCTION CODE" for every documented error
#   headers.pl calls HEADER...              CALL(RESULT, FUNCTION, (PARAMETERS), (ARGUMENTS), CODE,
#                                           ERRORS) for every function with documented errors: CODE
#                                           is where it leaves one, ERRORS is ERROR(CODE, VALUE)...
#
# A header opens with a comment about the whole. Then come blocks, separated by blank lines: a
# comment and what it is about. A comment further down in a block is about the next declaration
# alone; one that stands alone begins a section, with its first sentence as the title. In a comment, lines indented by more than one space are shown as they stand, and a line
# that begins with "Errors:" lists CODE or CODE (when), separated by commas, up to the end.
use strict;
use warnings;
use Errno;

my %usual_reason = (
    CL_ERR_STATE       => 'the library is not initialised',
    CL_ERR_QUEUE       => 'an internal queue operation failed',
    CL_ERR_IN_PROGRESS => 'not a failure: an event will report the end',
);

# ------------------------------------------------------------------------------------ reading

# Lines of a comment without its frame.
sub comment_lines {
    my ($text) = @_;
    $text =~ s{^/\* ?}{};
    $text =~ s{\s*\*/$}{};
    return map { s/^ \* ?//r } split /\n/, $text;
}

# Splits a header into blocks at the blank lines that are outside of braces.
sub blocks {
    my ($text) = @_;
    my ($depth, $directive, $comment) = (0, 0, 0);
    my @blocks = ('');
    for my $line (split /^/, $text) {
        if ($line =~ /^\s*$/ && $depth == 0) {
            push @blocks, '' if $blocks[-1] ne '';
            next;
        }
        $blocks[-1] .= $line;
        $directive = 1 if $line =~ /^#/;
        my $code = $line =~ s{/\*.*?\*/}{}gr;
        $comment = 0 if $comment && $code =~ s{^.*?\*/}{};
        $code = '' if $comment;
        $comment = 1 if $code =~ s{/\*.*}{}s;
        $depth += ($code =~ tr/{//) - ($code =~ tr/}//) unless $directive;
        $directive = 0 unless $line =~ /\\$/;
    }
    return grep { $_ ne '' } @blocks;
}

# What is there for the compiler and the build alone.
sub without_scaffolding {
    my ($text) = @_;
    $text =~ s/\\\n/\\\x01/g;    # a directive and its continuations are one line
    $text =~ s/^#ifdef __cplusplus\n.*?^#else\n(.*?)^#endif\n/$1/gms;
    $text =~ s/^#endif\n\z//m;
    $text =~ s/^#(?:ifndef|define) QVCL_.*\n//gm;
    $text =~ s/^#define CL_(?:LAYOUT_\w+|KIND_NUMBER|KIND_PLACE).*\n//gm;
    $text =~ s/^#(?:include|undef) .*\n//gm;
    $text =~ s/^QVCL_(?:BEGIN|END)\n//gm;
    $text =~ s/^(?:CL_LAYOUT_\w+|static_assert)\(.*?\);\n//gms;
    return $text =~ s/\x01/\n/gr;
}

# A header as {name, about, items}; an item is {comment, code, functions, variables, macros}.
sub read_header {
    my ($path) = @_;
    open my $file, '<', $path or die "$path: $!\n";
    local $/;
    my $text = <$file>;
    close $file;
    my $whole = $text;
    my ($name) = $path =~ m{([^/]+)\.h$} or die "$path: no header\n";
    $text =~ s{^(/\*.*?\*/)\n}{}s or die "$path: does not open with a comment\n";
    my $header = { name => $name, about => [ comment_lines($1) ], items => [] };
    for my $block (blocks(without_scaffolding($text))) {
        my $main = { comment => [], code => '' };
        push @{ $header->{items} }, $main;
        my $item = $main;
        while ($block ne '') {
            if ($block =~ s{^(/\*(?:(?!\*/).)*\*/)\n}{}s) {
                my @lines = comment_lines($1);
                $item = { code => '' } if $main->{code} ne '';
                $item->{comment} = \@lines;
                push @{ $header->{items} }, $item if $item != $main;
            } else {
                my $text = next_declaration(\$block);
                take_declaration($item, $text);
                $item = $main unless $text =~ /^#/;
            }
        }
    }
    $header->{includes} = [ $whole =~ m{^#include <qvcl/(\w+)\.h>}mg ];
    return $header;
}

# Takes a directive, or a declaration up to the semicolon that ends it, off a block.
sub next_declaration {
    my ($block) = @_;
    return $1 if $$block =~ s/^(#(?:.*\\\n)*.*\n)//;
    my ($text, $depth) = ('', 0);
    while ($$block =~ s/^(.*\n)//) {
        $text .= $1;
        my $code = $1 =~ s{/\*.*?(?:\*/|$)}{}gr;
        $depth += ($code =~ tr/{//) - ($code =~ tr/}//);
        last if $depth == 0 && $code =~ /;\s*$/;
    }
    return $text;
}

sub take_declaration {
    my ($item, $text) = @_;
    $item->{code} .= $text;
    my $flat = $text =~ s/\\?\s+/ /gr =~ s/^QVCL_API //r;
    if ($flat =~ /^#define (CL_\w+)\(([^)]*)\).*\bCL_(?:HERE|FILE_LINE)\b/) {
        push @{ $item->{macros} }, { name => $1, arguments => [ split /, /, $2 ] };
    } elsif ($flat =~ /^extern (.*?)(\w+); ?$/) {
        push @{ $item->{variables} }, { name => $2, type => $1 };
    } elsif ($flat =~ /^(?!typedef)(\w[\w ]*?[ *]+)(\w+)\((.*)\); ?$/) {
        my ($type, $name, $arguments) = ($1, $2, $3);
        push @{ $item->{functions} },
            { name => $name, type => $type =~ s/ $//r, arguments => [ split /, /, $arguments ] };
    }
}

# The comment without its errors, and the errors as [code, when].
sub split_errors {
    my ($item, $where) = @_;
    my @text = @{ $item->{comment} };
    my ($start) = grep { $text[$_] =~ /^Errors:/ } 0 .. $#text;
    return (\@text, []) unless defined $start;
    my $list = join ' ', splice @text, $start;
    $list =~ s/^Errors: //;
    my @errors;
    while ($list =~ s/^(E[A-Z0-9]+|errno|CL_\w+)(?: \(([^()]*)\))?(?:, |\.$)//) {
        my ($code, $when) = ($1, $2);
        die "$where: $code is no name of errno.h\n" if $code =~ /^E/ && !exists $!{$code};
        $when //= $usual_reason{$code} // '';
        push @errors, [ $code, $when ];
    }
    die "$where: cannot read these errors: $list\n" if $list ne '';
    return (\@text, \@errors);
}

# ------------------------------------------------------------------------------------ the list

sub print_errors {
    for my $header (map { read_header($_) } @_) {
        for my $item (grep { $_->{functions} } @{ $header->{items} }) {
            my ($text, $errors) = split_errors($item, $header->{name});
            for my $function (@{ $item->{functions} }) {
                print "$function->{name} $_->[0]\n" for @$errors;
                # Who fills an error record says with what, or what else it is for.
                next if @$errors || grep { /\berr: / } @$text;
                next unless grep { /^CL_ErrInfo \*err$/ } @{ $function->{arguments} };
                die "$header->{name}: which errors has $function->{name}?\n";
            }
        }
    }
}

sub print_calls {
    for my $header (map { read_header($_) } @_) {
        for my $item (grep { $_->{functions} } @{ $header->{items} }) {
            my ($text, $errors) = split_errors($item, $header->{name});
            my $list = join ' ', map { "ERROR(\"$_\", " . ($_ eq 'errno' ? 0 : $_) . ')' }
                map { $_->[0] } @$errors;
            for my $function (grep { @$errors } @{ $item->{functions} }) {
                my @parameters = grep { $_ ne 'void' } @{ $function->{arguments} };
                my @names = map { /\(\*(\w+)\)/ || /(\w+)$/ ? $1 : die "$_: no name\n" } @parameters;
                printf "CALL(%s, %s, (%s), (%s), %s, %s)\n", $function->{type}, $function->{name},
                    join(', ', @parameters), join(', ', @names),
                    (grep { $_ eq 'err' } @names) ? 'err' : 'result', $list;
            }
        }
    }
}

# ------------------------------------------------------------------------------------ manual pages

sub escaped {
    my ($text) = @_;
    $text =~ s/\\/\\e/g;
    $text =~ s/^([.'])/\\&$1/mg;
    $text =~ s/`([^`\n]+)`/\\fI$1\\fP/g;
    return $text;
}

# Comment lines as mdoc: paragraphs, and displays of what stands indented.
sub prose {
    my $text = join("\n", @_) . "\n";
    my @parts;
    for my $part (split /((?:^ .*\n)+)|\n{2,}/m, $text) {
        next if !defined $part || $part =~ /^\n*$/;
        if ($part =~ /^ /) {
            my ($indent) = sort { $a <=> $b } map { length } $part =~ /^( +)/mg;
            $part =~ s/^ {$indent}//mg;
            push @parts, ".Bd -literal -offset indent\n" . escaped($part) . ".Ed\n";
        } else {
            # Every sentence begins a line, as manual pages are written.
            $part =~ s/^\n+|\n+$//g;
            $part =~ s/([.?!][)"]*) +(?=\S)/$1\n/g;
            push @parts, (@parts ? ".Pp\n" : '') . escaped($part) . "\n";
        }
    }
    return join '', @parts;
}

sub declaration {
    my ($function, $type) = @_;
    my $out = $type ? ".Ft \"$type\"\n" : '';
    $out .= ".Fo $function->{name}\n";
    $out .= ".Fa \"$_\"\n" for @{ $function->{arguments} };
    return $out . ".Fc\n";
}

sub synopsis {
    my ($header) = @_;
    my $out = ".In qvcl/$header->{name}.h\n";
    for my $item (@{ $header->{items} }) {
        $out .= ".Vt \"extern $_->{type}$_->{name}\" ;\n" for @{ $item->{variables} };
        $out .= declaration($_, $_->{type}) for @{ $item->{functions} };
        $out .= declaration($_) for @{ $item->{macros} };
    }
    return $out;
}

# A tag that names everything that a comment is about.
sub tag {
    my ($item) = @_;
    my @names = map { ".Fn $_->{name}" } @{ $item->{functions} }, @{ $item->{macros} };
    push @names, map { ".Va $_->{name}" } @{ $item->{variables} };
    return ".It Xo\n" . join(" ,\n", @names) . "\n.Xc\n";
}

sub descriptions {
    my ($header, $errors) = @_;
    my $types = '';
    my @sections = ({ title => 'Functions', intro => '', functions => '' });
    for my $item (@{ $header->{items} }) {
        my ($text, $list) = split_errors($item, $header->{name});
        if ($item->{functions} || $item->{variables}) {
            die "$header->{name}: nothing is said about\n$item->{code}" unless @$text;
            $sections[-1]{functions} .= tag($item) . prose(@$text);
            push @$errors, map { [ $_->{name}, $list ] } grep { @$list } @{ $item->{functions} };
        } elsif ($item->{code} ne '') {
            $types .= ".Pp\n" if $types ne '' && @$text;
            $types .= prose(@$text) . ".Bd -literal\n" . escaped($item->{code}) . ".Ed\n";
        } else {
            my ($title, @intro) = @$text;
            push @sections, { title => $title =~ s/\.$//r, intro => prose(@intro), functions => '' };
        }
    }
    my $out = prose(@{ $header->{about} });
    $out .= ".Ss Types and constants\n$types" if $types ne '';
    for my $section (grep { $_->{functions} ne '' } @sections) {
        $out .= ".Ss $section->{title}\n$section->{intro}.Bl -tag -width Ds\n$section->{functions}.El\n";
    }
    return $out;
}

sub error_section {
    my ($errors) = @_;
    return '' unless @$errors;
    my $out = ".Sh ERRORS\n";
    for my $entry (@$errors) {
        my ($name, $list) = @$entry;
        $out .= ".Ss $name\n.Bl -tag -width Er\n";
        for my $error (@$list) {
            my ($code, $when) = @$error;
            my $shown =
                  $code eq 'errno'   ? 'Other errno values'
                : $code =~ /^E/      ? "Bq Er $code"
                :                      "Bq Dv $code";
            $when = $code eq 'errno' ? "from $when" : $when if $when ne '';
            $out .= ".It $shown\n" . ($when eq '' ? '' : escaped(ucfirst $when) . ".\n");
        }
        $out .= ".El\n";
    }
    return $out;
}

# Functions, macros that stand for them, and variables.
sub names_called {
    my ($header) = @_;
    return map { $_->{name} }
        map { (@{ $_->{functions} // [] }, @{ $_->{macros} // [] }, @{ $_->{variables} // [] }) }
        @{ $header->{items} };
}

# Types, enumerators and constants.
sub names_declared {
    my ($header) = @_;
    my %names;
    for my $item (@{ $header->{items} }) {
        my $code = $item->{code} =~ s{/\*.*?\*/}{}gsr =~ s{\\\n}{ }gr;
        $names{$_} = 1 for $code =~ /^#define (CL_\w+)/mg;
        $names{"CL_KIND_$_"} = 1 for $code =~ /\bKIND\(\d+, (\w+),/g;
        $code =~ s/^#.*\n//mg;
        while ($code =~ /\benum\s*\w*\s*\{(.*?)\}/gs) {
            $names{$_} = 1 for map { /(CL_\w+)\s*(?:=.*)?$/s ? $1 : () } split /,/, $1;
        }
        $names{$_} = 1 for $code =~ /\b(?:struct|union|enum) (CL_\w+)\s*[{;]/g;
        $names{$_} = 1 for $code =~ /^[^{}\n]* const \w+ (CL_\w+)\[\] = /mg;
        $names{$_} = 1 for $code =~ /^(?:typedef [^{}]*?|\} )(?:\(\*)?(CL_\w+)(?:\)\([^;]*)?;/mg;
    }
    return sort keys %names;
}

# The pages that the page in markdown leads to, those of the headers that this one stands on, and the
# written ones that lead here.
sub see_also {
    my ($header, $pages, $listed) = @_;
    my %to = map { $_ => 1 } @{ $header->{includes} };
    if (open my $file, '<', "$pages/../$header->{name}.md") {
        local $/;
        $to{$_} = 1 for <$file> =~ /\]\((\w+)\.md/g;
    }
    my @to = map { "qvcl_$_ 3" } grep { $listed->{$_} && $_ ne $header->{name} } keys %to;
    for my $path (glob "$pages/*.[15]") {
        open my $file, '<', $path or die "$path: $!\n";
        local $/;
        push @to, $path =~ s{^.*/(.*)\.(\d)$}{$1 $2}r if <$file> =~ /^\.Xr qvcl_$header->{name} 3/m;
    }
    my @sorted = sort { substr($a, -1) <=> substr($b, -1) || $a cmp $b } @to, 'qvcl 7';
    return ".Sh SEE ALSO\n" . join(" ,\n", map { ".Xr $_" } @sorted) . "\n";
}

sub page {
    my ($header, $date, $see_also) = @_;
    my @names = names_called($header);
    my ($what) = join(' ', @{ $header->{about} }) =~ /^(.*?)[.:](?: |$)/;
    my $library = $header->{name} =~ /^(channel|nest|recorder|source|starter)$/ ? 'libqvcl-starter, -lqvcl-starter -lqvcl' : 'libqvcl, -lqvcl';
    my @errors;
    my $description = descriptions($header, \@errors);
    return ".\\\" Made from <qvcl/$header->{name}.h>: change that, not this.\n"
        . ".Dd $date\n.Dt QVCL_" . uc($header->{name}) . " 3\n.Os\n.Sh NAME\n"
        . join(" ,\n", map { ".Nm $_" } "qvcl_$header->{name}", @names)
        . "\n.Nd " . lcfirst($what) . "\n.Sh LIBRARY\n($library)\n.Sh SYNOPSIS\n" . synopsis($header)
        . ".Sh DESCRIPTION\n$description" . error_section(\@errors)
        . $see_also;
}

sub write_file {
    my ($path, $text) = @_;
    open my $file, '>', $path or die "$path: $!\n";
    print $file $text;
    close $file or die "$path: $!\n";
}

sub write_pages {
    my ($directory, $overview, @headers) = @_;
    open my $file, '<', $overview or die "$overview: $!\n";
    my @lines = <$file>;
    close $file;
    my ($date) = map { /^\.Dd (.*)/ } @lines or die "$overview: no date\n";
    my %listed = map { $_ => 1 } map { /^\.It Xr qvcl_(\w+) 3/ } @lines;
    my $pages = $overview =~ s{/[^/]*$}{}r;
    for my $header (grep { $listed{ $_->{name} } } map { read_header($_) } @headers) {
        my $name = "qvcl_$header->{name}.3";
        write_file("$directory/$name", page($header, $date, see_also($header, $pages, \%listed)));
        write_file("$directory/$_.3", ".so man3/$name\n")
            for names_called($header), names_declared($header);
    }
}

my %modes = (man => \&write_pages, errors => \&print_errors, calls => \&print_calls);
my $mode = $modes{ shift // '' } or die "usage: headers.pl man DIR OVERVIEW HEADER... | errors|calls HEADER...\n";
$mode->(@ARGV);
