# Turns each ```cpp block of a page into a function, and lists them.
/^```cpp$/ { printf "void example%d(ReaderImpl& adaptor) {\n#line %d \"host-guide.md\"\n", ++count, NR + 1; inside = 1; next }
/^```$/ && inside { print "}"; inside = 0; next }
inside { print }
END {
  print "using Example = void (*)(ReaderImpl&);\nconst Example kExamples[] = {"
  for (i = 1; i <= count; i++) printf "example%d, ", i
  print "};"
}
