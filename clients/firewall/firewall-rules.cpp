/*
 * firewall-rules.cpp - parsing and matching of the example firewall's rules.
 */
#include "firewall-rules.h"

namespace firewall {

namespace {

using example::ParseAddress;
using example::ParseNumber;
using example::TextCursor;
using example::WordIs;

/* Keeps the rule's own text, spaces collapsed, as ASCII ('?' for anything else). */
VOID KeepText(Rule *R, TextCursor Text)
{
    ULONG n = 0;
    BOOLEAN space = FALSE;
    for (const WCHAR *p = Text.Next; p < Text.End && n + 1 < sizeof(R->Text); p++) {
        if (example::IsSpace(*p)) {
            space = n > 0;
            continue;
        }
        if (space && n + 2 < sizeof(R->Text))
            R->Text[n++] = ' ';
        space = FALSE;
        R->Text[n++] = (*p >= 0x20 && *p < 0x7F) ? (CHAR)*p : '?';
    }
    R->Text[n] = '\0';
}

/* A "src"/"dst" prefix, if the word is one. */
UCHAR SideOf(const TextCursor &Word)
{
    if (WordIs(Word, "src"))
        return SideSource;
    if (WordIs(Word, "dst"))
        return SideDestination;
    return SideNone;
}

/* Sets the protocol once; a second protocol term is an error. */
BOOLEAN SetProtocol(Rule *R, ULONG Protocol)
{
    if (R->HasProtocol)
        return FALSE;
    R->HasProtocol = TRUE;
    R->Protocol = (UCHAR)Protocol;
    return TRUE;
}

/*
 * ParseRule - the terms of one rule, up to its ';' or the end of the text.
 * *Empty tells a rule without any term (skipped, not an error).
 */
BOOLEAN ParseRule(TextCursor *Cursor, Rule *R, BOOLEAN *Empty)
{
    RtlZeroMemory(R, sizeof(*R));
    *Empty = TRUE;
    for (;;) {
        TextCursor word = example::NextWord(Cursor);
        if (word.Next == word.End)
            return TRUE;
        *Empty = FALSE;

        ULONG value = 0;
        UCHAR side = SideOf(word);
        if (side != SideNone) {
            word = example::NextWord(Cursor);
            if (!WordIs(word, "port") && !WordIs(word, "host"))
                return FALSE;
        }
        if (WordIs(word, "in") || WordIs(word, "out")) {
            R->Chains |= FIREWALL_CHAIN_BIT(WordIs(word, "in") ? EXAMPLE_CHAIN_INCOMING : EXAMPLE_CHAIN_OUTGOING);
        } else if (WordIs(word, "tcp") || WordIs(word, "udp") || WordIs(word, "icmp")) {
            if (!SetProtocol(R, WordIs(word, "tcp") ? 6 : WordIs(word, "udp") ? 17 : 1))
                return FALSE;
        } else if (WordIs(word, "proto")) {
            if (!ParseNumber(example::NextWord(Cursor), 255, &value) || !SetProtocol(R, value))
                return FALSE;
        } else if (WordIs(word, "port")) {
            if (R->PortSide != SideNone || !ParseNumber(example::NextWord(Cursor), 65535, &value))
                return FALSE;
            R->PortSide = side != SideNone ? side : (UCHAR)SideEither;
            R->Port = (USHORT)value;
        } else if (WordIs(word, "unsolicited")) {
            R->Unsolicited = TRUE;
            R->Chains |= FIREWALL_CHAIN_BIT(EXAMPLE_CHAIN_INCOMING);
        } else if (WordIs(word, "host")) {
            if (R->HostSide != SideNone || !ParseAddress(example::NextWord(Cursor), &R->Host))
                return FALSE;
            R->HostSide = side != SideNone ? side : (UCHAR)SideEither;
        } else {
            return FALSE;
        }
    }
}

/* Whether `Wanted` is the source or the destination value, as far as `Side` looks. */
BOOLEAN SideMatches(UCHAR Side, ULONG Wanted, ULONG Source, ULONG Destination)
{
    return ((Side & SideSource) && Source == Wanted) || ((Side & SideDestination) && Destination == Wanted);
}

} // namespace

BOOLEAN ParseRules(example::TextCursor Text, RuleSet *Set, PULONG BadRule)
{
    Set->Count = 0;
    Set->AsksFlows = FALSE;
    *BadRule = 0;
    ULONG number = 0;
    Rule overflow; /* where a rule beyond the last slot is parsed, to tell an empty one */
    while (!Text.AtEnd()) {
        number++;
        TextCursor start = Text;
        Rule *rule = Set->Count < EXAMPLE_FIREWALL_MAX_RULES ? &Set->Rules[Set->Count] : &overflow;
        BOOLEAN empty = FALSE;
        BOOLEAN parsed = ParseRule(&Text, rule, &empty);
        if (!parsed || (!empty && rule == &overflow)) {
            *BadRule = number;
            return FALSE;
        }
        if (!empty) {
            if (rule->Chains == 0)
                rule->Chains = FIREWALL_ALL_CHAINS;
            TextCursor own = {start.Next, Text.Next};
            KeepText(rule, own);
            Set->AsksFlows |= rule->Unsolicited;
            Set->Count++;
        }
        if (!Text.AtEnd())
            Text.Next++; /* the ';' that ended the rule */
    }
    return TRUE;
}

BOOLEAN Matches(const Rule &R, const EXAMPLE_IP_FIELDS &Fields, ULONG Chain, BOOLEAN Reply)
{
    if ((R.Chains & FIREWALL_CHAIN_BIT(Chain)) == 0)
        return FALSE;
    if (R.Unsolicited && (Chain != EXAMPLE_CHAIN_INCOMING || Reply))
        return FALSE;
    if (R.HasProtocol && Fields.Protocol != R.Protocol)
        return FALSE;
    if (R.PortSide != SideNone &&
        (!Fields.HasPorts || !SideMatches(R.PortSide, R.Port, Fields.SourcePort, Fields.DestinationPort)))
        return FALSE;
    if (R.HostSide != SideNone && !SideMatches(R.HostSide, R.Host, Fields.Source, Fields.Destination))
        return FALSE;
    return TRUE;
}

} // namespace firewall
