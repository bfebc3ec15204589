// fronts/get.cpp with libfcgi, started as a plain CGI program. The library does
// not parse requests, so this program has a parser of its own.

#include <fcgi_stdio.h>
#include <stdlib.h>
#include <string.h>

static int HexDigit(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return -1;
}

static void DecodeInPlace(char* text) {
  char* out = text;
  for (const char* in = text; *in != '\0'; ++in) {
    if (*in == '+') {
      *out++ = ' ';
    } else if (*in == '%' && HexDigit(in[1]) >= 0 && HexDigit(in[2]) >= 0) {
      *out++ = (char)(HexDigit(in[1]) * 16 + HexDigit(in[2]));
      in += 2;
    } else {
      *out++ = *in;
    }
  }
  *out = '\0';
}

// Returns a copy of the text after "name=" in a list of items; NULL if the name
// is missing.
static char* ItemOf(const char* list, const char* separators,
                    const char* name) {
  const size_t name_size = strlen(name);
  while (*list != '\0') {
    list += strspn(list, separators);
    const size_t size = strcspn(list, separators);
    if (size > name_size && list[name_size] == '=' &&
        memcmp(list, name, name_size) == 0) {
      return strndup(list + name_size + 1, size - name_size - 1);
    }
    list += size;
  }
  return NULL;
}

static const char* Variable(const char* name) {
  const char* value = getenv(name);
  return value == NULL ? "" : value;
}

static void PrintItem(const char* name, char* value) {
  printf("%s=%s\n", name, value == NULL ? "" : value);
  free(value);
}

static void PrintParameter(const char* name) {
  char* value = ItemOf(Variable("QUERY_STRING"), "&", name);
  if (value != NULL) DecodeInPlace(value);
  PrintItem(name, value);
}

int main(void) {
  while (FCGI_Accept() >= 0) {
    printf("Content-Type: text/plain\r\n\r\n");
    PrintParameter("a");
    PrintParameter("b");
    PrintParameter("c");
    PrintItem("session", ItemOf(Variable("HTTP_COOKIE"), "; ", "session"));
  }
  return 0;
}
