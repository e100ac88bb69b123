#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""That the changes are those which the operators name, and that nothing else is changed."""
import unittest

from operators import apply, mutants_of


def changed(text, kind=None):
    return [apply(text, m) for m in mutants_of(text) if kind in (None, m.kind)]


class Operators(unittest.TestCase):
    def test_binary_operators_are_exchanged(self):
        for old, new in (("a < b", "a <= b"), ("a >= b", "a > b"), ("a == b", "a != b"), ("a + b", "a - b"),
                         ("a * b", "a / b"), ("a & b", "a | b"), ("a << b", "a >> b"), ("a && b", "a || b"),
                         ("a += b", "a -= b"), ("a |= b", "a &= b")):
            self.assertIn(f"x({new})", changed(f"x({old})"), old)

    def test_what_only_looks_like_an_operator_stays(self):
        for text in ("template <typename T>", "std::vector<int> v", "auto&& v : all", "RW_Entry* pEntry",
                     "const Text& text", "-Bytes", "void f(T&&... piece)", "bool operator==(const T&) const"):
            self.assertEqual(changed(text), [], text)

    def test_numbers_move_by_one_and_keep_their_kind(self):
        for old, new in (("0", "1"), ("1", "0"), ("7", "8"), ("0xFFFFFFFF", "0xFFFFFFFE"), ("128u", "129u"),
                         ("1'000", "1001"), ("0x1F", "0x20"), ("true", "false")):
            self.assertEqual(changed(f"x = {old}", "constant"), [f"x = {new}"], old)
        self.assertEqual(changed("x = 0.5"), [])

    def test_texts_messages_and_proofs_stay(self):
        for text in ('f("a < b 1");', "// if (a < 1) b();", "#if A < 1", 'DbgPrint("%d", a + 1);',
                     "static_assert(sizeof(A) == 16);", "char c = '1';"):
            self.assertEqual([c for c in changed(text) if c != "{}"], [], text)
        self.assertEqual(changed('{ DbgPrint("\\n%d", a + 1); }'), [])

    def test_conditions_are_negated_whole(self):
        self.assertEqual(changed("if (a || f(b)) {", "condition"), ["if (!(a || f(b))) {"])
        self.assertEqual(changed("while (left) {", "condition"), ["while (!(left)) {"])
        self.assertEqual(changed("if (T* p = f(a)) {", "condition"), [])
        self.assertEqual(changed("if constexpr (a) {", "condition"), [])

    def test_statements_are_deleted_and_declarations_are_not(self):
        for statement in ("f(a, b);", "p->q.f();", "x[1] = 2;", "++n;", "*p = q;", "std::move(a);", "a = b;",
                          "Spin_Guard Guard(Lock);", "break;", "x |= y;"):
            self.assertEqual(changed(f"{{ {statement} }}", "deleted statement"), ["{ {} }"], statement)
        for statement in ("int a = b;", "T* p = q;", "return f(a);", "using namespace a;", "auto v = f();",
                          "std::vector<int> v;", "T f(int a);", "A::B c;"):
            self.assertEqual(changed(f"{{ {statement} }}", "deleted statement"), [], statement)
        self.assertEqual(changed("if (a)\n    f(b);\nelse\n    g(c);\n", "deleted statement"),
                         ["if (a)\n    {}\nelse\n    g(c);\n", "if (a)\n    f(b);\nelse\n    {}\n"])

    def test_lambda_bodies_count_as_bodies(self):
        self.assertEqual(changed("{ all([&] { f(); }); }", "deleted statement"),
                         ["{ {} }", "{ all([&] { {} }); }"])


if __name__ == "__main__":
    unittest.main()
