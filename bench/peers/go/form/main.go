// fronts/form.cpp with Go's net/http/cgi.
package main

import (
	"errors"
	"fmt"
	"hash/fnv"
	"io"
	"log"
	"net/http"
	"net/http/cgi"
	"os"
)

const (
	largestBody = 1 << 30
	inMemory    = 32 << 20
)

// parse fills the request's form. The default limit for bodies would be 10 MB.
func parse(request *http.Request) error {
	request.Body = http.MaxBytesReader(nil, request.Body, largestBody)
	err := request.ParseMultipartForm(inMemory)
	if errors.Is(err, http.ErrNotMultipart) {
		return nil
	}
	return err
}

func main() {
	request, err := cgi.Request()
	if err != nil {
		log.Fatal(err)
	}
	if err := parse(request); err != nil {
		log.Fatal(err)
	}
	isHashing := os.Getenv("HASH") != "no"
	size := 0
	hash := fnv.New64a()
	for i := 0; i < len(request.PostForm); i++ {
		value := request.PostForm.Get(fmt.Sprint("f", i))
		size += len(value)
		if isHashing {
			io.WriteString(hash, value)
		}
	}
	fmt.Printf("Content-Type: text/plain\r\n\r\n%d %d", len(request.PostForm), size)
	if isHashing {
		fmt.Printf(" %016x", hash.Sum64())
	}
	fmt.Println()
}
