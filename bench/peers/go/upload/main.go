// fronts/upload.cpp with Go's net/http/cgi. It copies the body directly to the
// file.
package main

import (
	"errors"
	"fmt"
	"io"
	"log"
	"mime/multipart"
	"net/http/cgi"
	"os"
)

// partNamed returns the part of this name and skips those before it.
func partNamed(name string, form *multipart.Reader) (*multipart.Part, error) {
	for {
		part, err := form.NextPart()
		if err == io.EOF {
			return nil, errors.New("the form contains no file")
		}
		if err != nil || part.FormName() == name {
			return part, err
		}
	}
}

func store(upload io.Reader, path string) (int64, error) {
	file, err := os.Create(path)
	if err != nil {
		return 0, err
	}
	size, err := io.Copy(file, upload)
	if err != nil {
		return 0, err
	}
	return size, file.Close()
}

func main() {
	request, err := cgi.Request()
	if err != nil {
		log.Fatal(err)
	}
	form, err := request.MultipartReader()
	if err != nil {
		log.Fatal(err)
	}
	upload, err := partNamed("u", form)
	if err != nil {
		log.Fatal(err)
	}
	size, err := store(upload, os.Getenv("STORE"))
	if err != nil {
		log.Fatal(err)
	}
	fmt.Printf("Content-Type: text/plain\r\n\r\n%d\n", size)
}
