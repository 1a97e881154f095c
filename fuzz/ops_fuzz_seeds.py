#!/usr/bin/python3
"""Writes the hand-made seeds of ops_fuzz into fuzz/corpus/ops_fuzz/.

Each seed is a short program in the byte encoding that ops_fuzz.cpp describes
at its top; the helpers below spell the operations out so that a seed reads as
what it does. Run it again after a change of the encoding.
"""

import os

# The op bytes: entries of kOps in ops_fuzz.cpp.
NEW, FINISH, FINISH_FLAGS, COPY, DERIVE, BEGIN, DROP = 0, 2, 3, 4, 5, 6, 7
ADD_PORT, ADD_CHILD, REMOVE, RESET_CHILD, CONNECT, SET_CONNECTION_VALUE = 8, 10, 11, 12, 13, 15
SET_VALUE, ERASE_VALUE, RESET_VALUE, TOUCH_VALUE = 16, 18, 19, 20
READ_VALUES, READ_CONNECTIONS, READ_TREE, FIND, WALK, VALIDATE, COMPACT = 21, 22, 23, 24, 26, 27, 28
BEGIN_ON_OBJECT, READ_STAMPS = 29, 30

IDS = ["a", "b", "c", "n0", "n1", "n2", "x", ".h", "#", "", "<", ">", "\u00e9", "a/b", "x\\y",
       "net.orvix.node.port.nodesystem"]
PARTS = ["<", ">", "<", ">", "a", "b", "c", "n0", "n1", "n2", "x", ".h", "#", "\u00e9", "a/b",
         "net.orvix.node.port.nodesystem"]
ATTRIBUTES = ["v", "w", "", "isshortcutstop"]

NORMAL, REMOVE_WIRE, INHERIT = 0x10, 0x3E, 0x80


def ident(text):
    return [IDS.index(text)]


def path(*parts):
    """A path of up to 7 parts, made with NodePath::Create."""
    assert len(parts) <= 7
    return [len(parts)] + [PARTS.index(p) for p in parts]


def at(*parts):
    """A handle: the path looked up in the step's system."""
    return [0xA0] + path(*parts)


ROOT = [0xE0]


def wire(channel, mode):
    return [channel, mode]


def wires(*channels):
    assert len(channels) == 8
    return [0xC0] + list(channels)


def value_int(v):
    return [1, v]


def op(code, *operands):
    out = [code]
    for o in operands:
        out += o if isinstance(o, list) else [o]
    return out


def add_port(slot, parent, name):
    return op(ADD_PORT, slot, parent, ident(name), 0)


def connect(slot, source, target, w):
    return op(CONNECT, slot, source, target, w)


def operator(slot, inputs, outputs):
    """A finished system with top-level ports, in `slot`."""
    prog = op(NEW, slot)
    for name in inputs:
        prog += add_port(slot, at("<"), name)
    for name in outputs:
        prog += add_port(slot, at(">"), name)
    return prog + op(FINISH, slot)


def nested_ports():
    s = 0
    prog = op(NEW, s)
    prog += add_port(s, at("<"), "a")
    prog += add_port(s, at("<", "a"), "b")
    prog += add_port(s, at("<", "a", "b"), "c")
    prog += add_port(s, at(">"), "x")
    prog += add_port(s, at(">", "x"), "b")
    prog += add_port(s, at(">", "x", "b"), "c")
    prog += connect(s, at("<", "a"), at(">", "x"), wire(0, NORMAL))
    prog += connect(s, at("<", "a", "b"), at(">", "x", "b"), wire(1, NORMAL))
    prog += op(SET_VALUE, s, at("<", "a", "b"), 0, value_int(5))
    prog += op(READ_CONNECTIONS, s, at(">", "x", "b", "c"), ROOT, 0x04, 1)
    prog += op(FINISH, s)
    prog += op(READ_CONNECTIONS, s, at("<", "a", "b", "c"), ROOT, 0x05, 1)
    return prog


def children_copy_derived():
    prog = operator(0, ["a"], ["x"])
    prog += op(NEW, 1)
    prog += add_port(1, at("<"), "a")
    prog += add_port(1, at(">"), "x")
    prog += op(ADD_CHILD, 1, ident("n0"), 0)
    prog += op(ADD_CHILD, 1, ident("n1"), 0)
    prog += add_port(1, at("n0", "<", "a"), "b")
    prog += connect(1, at("<", "a"), at("n0", "<", "a"), wire(0, NORMAL))
    prog += connect(1, at("n0", ">", "x"), at("n1", "<", "a"), wire(0, NORMAL))
    prog += connect(1, at("n1", ">", "x"), at(">", "x"), wire(2, NORMAL))
    prog += op(FINISH, 1)
    # A copy: edited, the original stays as it was.
    prog += op(COPY, 1, 2)
    prog += op(REMOVE, 2, at("n0"))
    prog += connect(2, at("<", "a"), at("n1", "<", "a"), wire(0, NORMAL))
    prog += op(FINISH, 2)
    # A derived system: takes a wire of the base away, changes another.
    prog += op(DERIVE, 1, 3, 1)
    prog += connect(3, at("n0", ">", "x"), at("n1", "<", "a"), wire(0, REMOVE_WIRE))
    prog += connect(3, at("<", "a"), at("n0", "<", "a"), wire(1, NORMAL))
    prog += op(SET_VALUE, 3, at("n1", "<", "a"), 1, value_int(9))
    prog += op(FINISH, 3)
    prog += op(DERIVE, 3, 4, 1)
    prog += connect(4, at("n0", ">", "x"), at("n1", "<", "a"), wires(*[INHERIT] * 8))
    prog += op(RESET_CHILD, 4, ROOT, ident("n1"))
    prog += op(FINISH, 4)
    return prog


def removals():
    prog = operator(0, ["a", "b"], ["x"])
    prog += op(NEW, 1)
    prog += op(ADD_CHILD, 1, ident("n0"), 0)
    prog += op(ADD_CHILD, 1, ident("n1"), 0)
    prog += add_port(1, at("<"), "c")
    prog += add_port(1, at(">"), "x")
    prog += connect(1, at("<", "c"), at("n0", "<", "a"), wire(0, NORMAL))
    prog += connect(1, at("n0", ">", "x"), at("n1", "<", "b"), wire(0, NORMAL))
    prog += connect(1, at("n1", ">", "x"), at(">", "x"), wire(0, NORMAL))
    prog += op(FINISH, 1)
    prog += op(DERIVE, 1, 2, 1)
    prog += op(REMOVE, 2, at("n0"))
    prog += op(REMOVE, 2, at("<", "c"))
    prog += op(ADD_CHILD, 2, ident("n0"), 0)
    prog += op(RESET_CHILD, 2, ROOT, ident("n1"))
    prog += op(ERASE_VALUE, 2, at("n1"), 0)
    prog += op(FINISH, 2)
    prog += op(BEGIN, 1)
    prog += op(REMOVE, 1, at("n1", "<", "b"))
    prog += op(REMOVE, 1, at("n1"))
    prog += op(FINISH, 1)
    prog += op(DROP, 1)
    prog += op(READ_TREE, 2, at("n0", "<", "a"), 0)
    return prog


def nested_wires_in_children():
    # Nested ports at several levels on both sides of a wire between child
    # nodes: the shape of the connection walk's hard cases.
    prog = op(NEW, 0)
    prog += add_port(0, at("<"), "a")
    prog += add_port(0, at("<", "a"), "b")
    prog += add_port(0, at(">"), "x")
    prog += add_port(0, at(">", "x"), "b")
    prog += op(FINISH, 0)
    prog += op(NEW, 1)
    prog += op(ADD_CHILD, 1, ident("n0"), 0)
    prog += op(ADD_CHILD, 1, ident("n1"), 0)
    prog += add_port(1, at("n1", "<", "a", "b"), "c")
    prog += add_port(1, at("n0", ">", "x", "b"), "c")
    prog += connect(1, at("n0", ">", "x"), at("n1", "<", "a"), wire(0, NORMAL))
    prog += connect(1, at("n0", ">", "x", "b"), at("n1", "<", "a", "b"), wire(1, NORMAL))
    prog += op(FINISH, 1)
    prog += op(DERIVE, 1, 2, 1)
    prog += connect(2, at("n0", ">", "x", "b", "c"), at("n1", "<", "a", "b"), wire(0, NORMAL))
    prog += op(FINISH, 2)
    return prog


def stale_handles():
    # Handles kept from a system that is dropped, then used on others.
    prog = operator(0, ["a"], ["x"])
    prog += op(FIND, 0, 0, path("<", "a"))
    prog += op(FIND, 0, 0, path(">", "x"))
    prog += op(NEW, 1)
    prog += op(ADD_CHILD, 1, ident("n0"), 0)
    prog += op(WALK, 1, 0x80 | 0x1C, ROOT)
    prog += op(DROP, 0)
    prog += op(SET_VALUE, 1, [0], 0, value_int(1))
    prog += connect(1, [1], [0], wire(0, NORMAL))
    prog += op(NEW, 0)
    prog += add_port(0, at("<"), "a")
    prog += op(SET_VALUE, 0, [0], 0, value_int(2))
    prog += op(WALK, 0, 0x00)
    prog += op(FINISH, 1)
    prog += op(FINISH, 0)
    return prog


def copy_chain_compact():
    # Each copy is edited while its source is still held, so every one puts
    # a layer on the shared map; at depth 6 Compact flattens it.
    prog = operator(0, ["a"], ["x"])
    names = ["b", "c", "n0", "n1", "n2", "x"]
    for k in range(5):
        prog += op(COPY, k, k + 1)
        prog += add_port(k + 1, at("<"), names[k])
        prog += op(SET_VALUE, k + 1, at("<", "a"), 0, value_int(k))
        prog += op(FINISH, k + 1)
    prog += op(COPY, 5, 0)
    prog += add_port(0, at(">"), "b")
    prog += connect(0, at("<", "a"), at(">", "b"), wire(0, NORMAL))
    prog += op(REMOVE, 0, at("<", "b"))
    prog += op(FINISH, 0)
    # Only a finished system that nobody else holds is compacted.
    prog += op(COMPACT, 0)
    prog += op(COPY, 0, 1)
    prog += op(SET_VALUE, 1, at("<", "a"), 1, value_int(8))
    prog += op(REMOVE, 1, at("<", "c"))
    prog += op(FINISH, 1)
    prog += op(DERIVE, 0, 2, 1)
    prog += op(REMOVE, 2, at("<", "n0"))
    prog += op(FINISH, 2)
    return prog


def two_level_nesting():
    prog = operator(0, ["a"], ["x"])
    prog += op(NEW, 1)
    prog += add_port(1, at("<"), "a")
    prog += add_port(1, at(">"), "x")
    prog += op(ADD_CHILD, 1, ident("n0"), 0)
    prog += connect(1, at("<", "a"), at("n0", "<", "a"), wire(0, NORMAL))
    prog += connect(1, at("n0", ">", "x"), at(">", "x"), wire(0, NORMAL))
    prog += op(FINISH, 1)
    prog += op(NEW, 2)
    prog += op(ADD_CHILD, 2, ident("n1"), 1)
    prog += op(ADD_CHILD, 2, ident("n2"), 1)
    prog += connect(2, at("n1", ">", "x"), at("n2", "<", "a"), wire(0, NORMAL))
    prog += op(SET_VALUE, 2, at("n1", "n0", "<", "a"), 0, value_int(3))
    prog += op(FINISH, 2)
    prog += op(DERIVE, 2, 3, 1)
    prog += op(REMOVE, 3, at("n1"))
    prog += op(SET_VALUE, 3, at("n2", "n0", "<", "a"), 1, value_int(4))
    prog += op(RESET_CHILD, 3, ROOT, ident("n1"))
    prog += op(ERASE_VALUE, 3, at("n1", "n0", "<", "a"), 0)
    prog += op(FINISH, 3)
    prog += op(DERIVE, 3, 4, 1)
    prog += op(RESET_VALUE, 4, at("n1", "n0", "<", "a"), 0)
    prog += op(TOUCH_VALUE, 4, at("n2", "n0", "<", "a"), 1)
    prog += op(FINISH, 4)
    return prog


SEEDS = {
    "nested_ports": nested_ports,
    "children_copy_derived": children_copy_derived,
    "removals": removals,
    "nested_wires_in_children": nested_wires_in_children,
    "stale_handles": stale_handles,
    "copy_chain_compact": copy_chain_compact,
    "two_level_nesting": two_level_nesting,
}


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    out = os.path.join(here, "corpus", "ops_fuzz")
    os.makedirs(out, exist_ok=True)
    for name, make in SEEDS.items():
        data = bytes(make())
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)
        print(f"{name}: {len(data)} bytes")


if __name__ == "__main__":
    main()
