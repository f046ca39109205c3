// SPDX-License-Identifier: Apache-2.0
package main

import (
	"fmt"
	"sort"
	"strings"
)

type counter map[string]int

func (c counter) add(words string) {
	for _, word := range strings.Fields(words) {
		c[word]++
	}
}

func main() {
	c := counter{}
	c.add("one two two three three three")
	words := make([]string, 0, len(c))
	for word := range c {
		words = append(words, word)
	}
	sort.Strings(words)
	fmt.Println(words, c)
}
