// Usage: upload URL TEXT FILE...
// Sends a form: the text as "note", the files as "upload0" and so on.
package main

import (
	"bytes"
	"fmt"
	"io"
	"log"
	"mime/multipart"
	"net/http"
	"os"
	"path/filepath"
)

func main() {
	url, text, files := os.Args[1], os.Args[2], os.Args[3:]
	body, contentType := form(text, files)
	answer, err := http.Post(url, contentType, body)
	check(err)
	defer answer.Body.Close()
	_, err = io.Copy(os.Stdout, answer.Body)
	check(err)
	if answer.StatusCode != http.StatusOK {
		os.Exit(1)
	}
}

func form(text string, files []string) (*bytes.Buffer, string) {
	body := &bytes.Buffer{}
	writer := multipart.NewWriter(body)
	check(writer.WriteField("note", text))
	for number, file := range files {
		part, err := writer.CreateFormFile(fmt.Sprintf("upload%d", number), filepath.Base(file))
		check(err)
		content, err := os.ReadFile(file)
		check(err)
		_, err = part.Write(content)
		check(err)
	}
	check(writer.Close())
	return body, writer.FormDataContentType()
}

func check(err error) {
	if err != nil {
		log.Fatal(err)
	}
}
