// go-ldap: go_ldap URL BASE FILTER ATTRIBUTES PAGE_SIZE
package main

import (
	"fmt"
	"log"
	"os"
	"strconv"
	"strings"
	"syscall"
	"time"

	"github.com/go-ldap/ldap/v3"
)

func processorSeconds() float64 {
	var usage syscall.Rusage
	if err := syscall.Getrusage(syscall.RUSAGE_SELF, &usage); err != nil {
		log.Fatal(err)
	}
	return time.Duration(usage.Utime.Nano() + usage.Stime.Nano()).Seconds()
}

func main() {
	size, err := strconv.ParseUint(os.Args[5], 10, 32)
	if err != nil {
		log.Fatal(err)
	}
	begun := time.Now()
	connection, err := ldap.DialURL(os.Args[1])
	if err != nil {
		log.Fatal(err)
	}
	if err := connection.UnauthenticatedBind(""); err != nil {
		log.Fatal(err)
	}
	connected, processor := time.Now(), processorSeconds()
	var firstPage time.Duration
	entries, values, bytes := 0, 0, 0
	paging := ldap.NewControlPaging(uint32(size))
	for {
		found, err := connection.Search(ldap.NewSearchRequest(os.Args[2], ldap.ScopeWholeSubtree, ldap.NeverDerefAliases,
			0, 0, false, os.Args[3], strings.Split(os.Args[4], ","), []ldap.Control{paging}))
		if err != nil {
			log.Fatal(err)
		}
		for _, entry := range found.Entries {
			entries++
			bytes += len(entry.DN)
			for _, attribute := range entry.Attributes {
				for _, value := range attribute.Values {
					values++
					bytes += len(value)
				}
			}
		}
		if firstPage == 0 {
			firstPage = time.Since(connected)
		}
		answered := ldap.FindControl(found.Controls, ldap.ControlTypePaging).(*ldap.ControlPaging)
		if len(answered.Cookie) == 0 {
			break
		}
		paging.SetCookie(answered.Cookie)
	}
	fmt.Printf("{\"entries\": %d, \"values\": %d, \"bytes\": %d, \"seconds\": %.6f, \"processor\": %.6f, "+
		"\"first_page\": %.6f, \"connect\": %.6f}\n", entries, values, bytes, time.Since(connected).Seconds(),
		processorSeconds()-processor, firstPage.Seconds(), connected.Sub(begun).Seconds())
}
