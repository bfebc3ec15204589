// fronts/get.cpp with Go's net/http/cgi.
package main

import (
	"bufio"
	"fmt"
	"log"
	"net/http/cgi"
	"os"
)

func main() {
	request, err := cgi.Request()
	if err != nil {
		log.Fatal(err)
	}
	answer := bufio.NewWriter(os.Stdout)
	fmt.Fprint(answer, "Content-Type: text/plain\r\n\r\n")
	for _, name := range []string{"a", "b", "c"} {
		fmt.Fprintf(answer, "%s=%s\n", name, request.FormValue(name))
	}
	session, err := request.Cookie("session")
	if err != nil {
		log.Fatal(err)
	}
	fmt.Fprintf(answer, "session=%s\n", session.Value)
	if err := answer.Flush(); err != nil {
		log.Fatal(err)
	}
}
